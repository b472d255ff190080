#pragma once

namespace kestrova {

/// Tells of the exception in flight, which goes no further: for a catch block around code of the
/// application. \param where whose it was, for the line
void reportEscaped(const char* where) noexcept;

}  // namespace kestrova
