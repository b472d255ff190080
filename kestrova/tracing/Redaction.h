#pragma once

#include <kestrova/platform/Values.h>
#include <kestrova/tracing/TraceOutput.h>
#include <kestrova/tracing/TraceValue.h>

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

enum class RedactionMode { full, partial, auto_ };

/// How a sensitive value is made unreadable. Lengths are in characters (code points), not bytes.
struct RedactionConfig {
  RedactionMode mode = RedactionMode::auto_;
  /// Characters left readable at each end.
  std::size_t visibleChars = 3;
  std::string mask = "***";
  /// `auto_`: values up to this length disappear whole.
  std::size_t autoThreshold = 8;
};

/// `value` as `config` wants it shown: "[REDACTED]", or its ends around the mask.
std::string redacted(std::string_view value, const RedactionConfig& config);

/// Which attributes are secret and which are only noise. Immutable; shared between threads.
class RedactionKeys {
public:
  /// \param sensitiveKeys lower case. One that holds characters of regular-expression syntax also
  ///   works as such an expression on keys inside JSON text; one that can't be compiled is left out
  ///   there.
  /// \param removalKeys lower case
  RedactionKeys(const std::set<std::string>& sensitiveKeys,
                const std::set<std::string>& removalKeys);
  /// The keys that a process starts with.
  static std::shared_ptr<const RedactionKeys> defaults();

  bool isSensitive(std::string_view key) const;
  bool isRemoved(std::string_view key) const;
  /// The sensitive keys that are regular expressions, compiled for pairs inside JSON text.
  struct Patterns;
  const Patterns& patterns() const { return *_patterns; }

private:
  class Lookup {
  public:
    explicit Lookup(const std::set<std::string>& keys);
    bool contains(std::string_view key) const;

  private:
    std::vector<std::string> _keys;
  };

  Lookup _sensitiveKeys;
  Lookup _removalKeys;
  std::shared_ptr<const Patterns> _patterns;
};

/// Takes secrets and noise out of attributes.
class Redaction {
public:
  explicit Redaction(std::shared_ptr<const RedactionKeys> keys = RedactionKeys::defaults(),
                     RedactionConfig config = {});
  /// With the keys and the mode that a process starts with.
  static const Redaction& standard();

  const std::shared_ptr<const RedactionKeys>& keys() const { return _keys; }
  const RedactionConfig& config() const { return _config; }

  /// What an output gets to see: `removeAttributes`, then `redactAttributes` unless it may see all.
  TraceAttributes redactIfNeeded(TraceAttributes attributes, bool canAccessSensitiveData) const;

  /// Drops the removal keys, inside JSON text as well.
  void removeAttributes(TraceAttributes& attributes) const;
  /// Applies the mode to values under sensitive keys, and to such pairs inside other values.
  void redactAttributes(TraceAttributes& attributes) const;
  /// The value with every `"key": "secret"` of a sensitive key in it made unreadable.
  std::string redactSensitivePatterns(std::string_view value) const;
  /// A JSON object or list without the removal keys at any depth; anything else as it is.
  std::string removeNestedKeysIfJSONString(std::string value) const;

private:
  void removeKeysDeep(Value& value) const;
  std::string redactPlainKeys(std::string_view value) const;
  std::string redactPatternKeys(std::string value) const;

  std::shared_ptr<const RedactionKeys> _keys;
  RedactionConfig _config;
};

/// What a span ended with, as `output` may show it: the tracer hands it over as it is.
TraceAttributes endAttributes(const SpanEnd& span, const TraceOutput& output);

}  // namespace kestrova
