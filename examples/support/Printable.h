#pragma once

#include <string>
#include <string_view>

namespace terminal {

/// What others named or said, made harmless for a terminal: each control character, and each byte
/// that is no UTF-8, becomes '?'. A new line is a control character, too.
std::string printable(std::string_view text);

}  // namespace terminal
