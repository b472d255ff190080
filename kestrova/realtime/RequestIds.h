#pragma once

#include <string>

namespace kestrova {

/// A fresh id for a request or a message: the time and 8 random characters, such as
/// "mi3k9x2c-0f4tz81q".
std::string generateRequestId();

/// Evenly spread from 0 to 1.
double randomFraction();

}  // namespace kestrova
