#pragma once

#include <kestrova/platform/AudioSession.h>
#include <kestrova/platform/linux/audio/PulseConnection.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// A sink, or a source that records the world and not what a sink plays.
struct SoundDevice {
  std::string name;         ///< stable over restarts; what streams are opened with
  std::string description;  ///< for people
  std::string portType;     ///< of a source: one of AudioSession.h
  bool isSpeaker = false;   ///< of a sink: built into the machine, or standing beside it
  /// What can be plugged in and pulled: the name alone, or with each port that may be there.
  std::vector<std::string> endpoints;
  std::string activeEndpoint;

  bool operator==(const SoundDevice&) const = default;
};

/// What the sound server has, at one moment.
struct SoundDevices {
  std::vector<SoundDevice> sources;
  std::vector<SoundDevice> sinks;
  std::string defaultSource;
  std::string defaultSink;

  bool operator==(const SoundDevices&) const = default;
};

/// Asks over a ready connection. Nothing when the server didn't answer in time.
std::optional<SoundDevices> readDevices(PulseConnection& connection,
                                        PulseConnection::Clock::time_point until);
/// The same over a connection of its own; waits half a second at most.
std::optional<SoundDevices> readDevices();

/// What the server says of a source, as far as it tells what kind it is.
struct SourceTraits {
  std::string_view bus;         ///< "pci", "usb", "bluetooth"; may be empty, as the others
  std::string_view formFactor;  ///< "internal", "headset", "webcam" and so on
  std::string_view profile;     ///< of a Bluetooth device
  int portKind = 0;             ///< of the active port: a pa_device_port_type
  std::string_view portName;
};
std::string_view portTypeOf(const SourceTraits& traits);

/// Leaves one built-in microphone, since people are shown but one, and makes all descriptions
/// different.
void makeDistinct(std::vector<SoundDevice>& sources);

/// The inputs as the session lists them.
std::vector<AVAudioSessionPortDescription> inputsOf(const SoundDevices& devices);
/// The name of the sink to play on when the speaker is wanted whatever else there is.
std::optional<std::string> speakerOf(const SoundDevices& devices);
/// The name of the source that is built in.
std::optional<std::string> builtInOf(const SoundDevices& devices);

/// What a change of the devices means to whoever plays on `sink` and records from `source`, which
/// are names of devices or empty for the default ones. In this order they are to be told.
std::vector<AVAudioSessionRouteChangeReason> routeChanges(const SoundDevices& before,
                                                          const SoundDevices& after,
                                                          const std::string& sink,
                                                          const std::string& source);

}  // namespace kestrova
