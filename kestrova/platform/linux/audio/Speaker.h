#pragma once

#include <cstdint>
#include <string>

namespace kestrova {

/// Chooses what received audio is played on, for the whole process and at once: "default" is the
/// sound server's default sink, "none" plays nothing, else the name of a sink. While a named sink
/// is not there, nothing is played. Thread-safe.
void setSpeaker(const std::string& config);

/// The present choice. Thread-safe.
std::string speaker();
/// Differs after each `setSpeaker`; cheap to ask. Thread-safe.
std::uint64_t speakerVersion();

}  // namespace kestrova
