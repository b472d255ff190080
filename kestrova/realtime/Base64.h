#pragma once

#include <string>
#include <string_view>

namespace kestrova {

/// The bytes in base64, padded, without line breaks.
std::string base64Encoded(std::string_view bytes);

}  // namespace kestrova
