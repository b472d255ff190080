#pragma once

#include <kestrova/model/MeetingTypes.h>
#include <kestrova/platform/Capture.h>
#include <kestrova/platform/ScreenShareConfig.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrova::meet {

/// A service of the meeting that this program starts and stops.
enum class Service { recording, hls, transcription, whiteboard };

/// What the command line asks for.
struct Options {
  std::string service;
  std::string meeting;
  std::string name = "Guest";
  std::string participant;
  std::string token;
  std::string tokenFile;
  std::string key;      ///< of an encrypted meeting
  std::string keyFile;  ///< where it stands
  CaptureConfig capture{.camera = "pattern", .microphone = "tone", .speaker = "none"};
  bool screen = false;  ///< shared after the join
  ScreenShareConfig screenShare;
  Mode mode = Mode::SEND_AND_RECV;
  std::optional<std::chrono::milliseconds> duration;  ///< from the join; for ever without it
  std::optional<std::filesystem::path> snapshot;
  std::optional<std::filesystem::path> record;
  std::string background;  ///< "blur" or a URL; empty: none
  int expect = 0;
  std::vector<Service> start;  ///< after the join
  std::string character;       ///< the id of one that joins with us; empty: none
  std::string characterName;
  std::string relayTo;     ///< the meeting that is asked to show this one; empty: none
  std::string relayToken;  ///< for that meeting; empty: this one's is good there
  bool acceptRelays = false;
  std::optional<std::uint16_t> inspect;  ///< the page's port, 0 for any; no page without it
  bool listDevices = false;
  bool chat = false;
  bool json = false;
  bool verbose = false;
  bool help = false;
  bool version = false;
};

/// What is wrong with the command line, in one line.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// \param environmentToken the text of KESTROVA_TOKEN, or null
/// \throws UsageError
Options parseOptions(const std::vector<std::string>& arguments, const char* environmentToken);
std::string usageText();

}  // namespace kestrova::meet
