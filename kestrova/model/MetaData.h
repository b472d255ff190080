#pragma once

#include <kestrova/platform/ValuesFwd.h>

#include <memory>
#include <optional>

namespace kestrova {

/// What an application tells of a participant: nothing, or a JSON object. It never changes, so
/// copies share the object; thread-safe.
///
/// Used as a `std::optional<Dictionary>`. To make one or to look into it, include
/// kestrova/platform/Values.h.
class MetaData {
public:
  MetaData() = default;
  MetaData(std::nullopt_t) {}              // NOLINT(google-explicit-constructor)
  MetaData(const Dictionary& dictionary);  // NOLINT(google-explicit-constructor)
  MetaData(Dictionary&& dictionary);       // NOLINT(google-explicit-constructor)

  bool has_value() const { return _dictionary != nullptr; }
  explicit operator bool() const { return has_value(); }
  /// Only where there is a value.
  const Dictionary& operator*() const { return *_dictionary; }
  const Dictionary* operator->() const { return _dictionary.get(); }

  /// Equal in content.
  friend bool operator==(const MetaData& left, const MetaData& right);

private:
  std::shared_ptr<const Dictionary> _dictionary;
};

}  // namespace kestrova
