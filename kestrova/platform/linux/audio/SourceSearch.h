#pragma once

#include <kestrova/platform/linux/audio/PulseConnection.h>

#include <optional>
#include <string>

namespace kestrova {

/// The name of the source to record when `name` is asked for, which is empty for the default one.
///
/// Nothing when there is none, or when it is the monitor of the very sink that plays the meeting:
/// everybody would hear themselves. (A server without any microphone takes such a monitor for its
/// default source.) Another sink's monitor is a microphone like any other, as agents use it.
std::optional<std::string> findSource(PulseConnection& connection, const std::string& name,
                                      PulseConnection::Clock::time_point until);

/// The name of the source that people are shown under that text; nothing when there is none.
std::optional<std::string> sourceShownAs(PulseConnection& connection, const std::string& shown,
                                         PulseConnection::Clock::time_point until);

}  // namespace kestrova
