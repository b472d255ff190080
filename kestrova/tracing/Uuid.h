#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

namespace kestrova {

/// A random identifier (RFC 9562, version 4). Making one draws on the system's generator and
/// allocates nothing; its text is made on demand. Any thread may make one.
class Uuid {
public:
  static Uuid random();
  /// 36 characters in lower case, "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx".
  std::string text() const;
  auto operator<=>(const Uuid&) const = default;

private:
  std::array<std::uint8_t, 16> _bytes{};
};

}  // namespace kestrova
