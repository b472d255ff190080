#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

namespace kestrova {

/// A random identifier (RFC 9562, version 4). Making one allocates nothing; its text is made on
/// demand. Any thread may make one.
class Uuid {
public:
  /// Drawn from the system's generator.
  static Uuid random();
  /// As unique, and made in a few nanoseconds, but not to be a secret: the system's generator only
  /// begins each thread's row.
  static Uuid fresh();
  /// 36 characters in lower case, "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx".
  std::string text() const;
  auto operator<=>(const Uuid&) const = default;

private:
  void markVersion();

  std::array<std::uint8_t, 16> _bytes{};
};

}  // namespace kestrova
