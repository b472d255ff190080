#pragma once

#include <string>
#include <string_view>

namespace kestrova::meet {

/// The bytes behind base64 without line breaks; those before the first character that is none.
std::string base64Decoded(std::string_view text);

}  // namespace kestrova::meet
