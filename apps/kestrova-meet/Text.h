#pragma once

#include "support/Printable.h"
#include <cstddef>
#include <string>
#include <string_view>

namespace kestrova::meet {

using terminal::printable;

/// How many columns it takes, a character each.
std::size_t columnsOf(std::string_view text);
/// The text cut to `columns` characters.
std::string shortened(std::string_view text, std::size_t columns);
/// The text cut or filled with blanks to `columns` characters.
std::string fitted(std::string_view text, std::size_t columns);
/// The same, aligned to the right.
std::string fittedRight(std::string_view text, std::size_t columns);
/// As many of its last characters as fit.
std::string fittedEnd(std::string_view text, std::size_t columns);
/// The number with so many decimals.
std::string fixed(double value, int decimals);

/// When something was said, as a clock here shows it: of today the time, of other days the date,
/// too. \param timestamp ISO 8601 in UTC, or milliseconds since 1970; of anything else "--:--:--"
/// comes
std::string clockTime(std::string_view timestamp);

}  // namespace kestrova::meet
