#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrova::meet {

/// Text from outside made harmless for a terminal: control characters become '?'.
std::string printable(std::string_view text);
/// The text cut or filled with blanks to `columns` characters.
std::string fitted(std::string_view text, std::size_t columns);
/// The same, aligned to the right.
std::string fittedRight(std::string_view text, std::size_t columns);
/// The number with so many decimals.
std::string fixed(double value, int decimals);

}  // namespace kestrova::meet
