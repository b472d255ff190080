#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestrova {

/// Chooses what received audio is played on, for the whole process and at once: "default" is the
/// sound server's default sink, "none" plays nothing, else the name of a sink. While a named sink
/// is not there, nothing is played. Thread-safe.
void setSpeaker(const std::string& config);

/// Plays on `sink` instead, until it is taken back or another choice is made; a choice of "none"
/// stays. Without a sink the choice is heard on, and the override waits for one. Thread-safe.
void overrideSpeaker(const std::optional<std::string>& sink);
void endSpeakerOverride();
bool isSpeakerOverridden();

/// What counts at present. Thread-safe.
std::string speaker();
/// Differs after each change of it; cheap to ask. Thread-safe.
std::uint64_t speakerVersion();

}  // namespace kestrova
