#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace kestrova {

/// The texts of an enumeration whose cases count from 0, in their order. A value that is none of
/// them has the empty text.
template <class Enum, std::size_t size>
struct EnumTexts {
  std::array<std::string_view, size> texts;

  constexpr std::string_view operator()(Enum value) const {
    const auto at = static_cast<std::size_t>(value);
    return at < size ? texts[at] : std::string_view();
  }
  /// An exact comparison; nothing for an unknown text.
  constexpr std::optional<Enum> parse(std::string_view text) const {
    for (std::size_t i = 0; i < size; ++i)
      if (texts[i] == text) return static_cast<Enum>(i);
    return std::nullopt;
  }
};

}  // namespace kestrova
