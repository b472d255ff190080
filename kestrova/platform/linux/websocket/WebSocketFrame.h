#pragma once

#include <string>
#include <string_view>

namespace kestrova {

/// Appends one unfragmented data frame as a client sends it, masked with a random key.
/// RFC 6455, section 5.2.
void appendFrame(std::string& out, bool binary, std::string_view payload);

}  // namespace kestrova
