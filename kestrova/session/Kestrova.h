#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/platform/Capture.h>
#include <kestrova/session/Meeting.h>
#include <kestrova/tracing/TraceCategories.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// What a meeting is asked for with, in the order in which a person would say it.
struct InitMeetingOptions {
  std::string meetingId;             ///< empty stops the process
  std::string participantId = {};    ///< empty: one is made up
  std::string participantName = {};  ///< empty: "Guest"
  bool micEnabled = false;
  bool webcamEnabled = false;
  /// The application's own tracks; without them the library captures camera and microphone.
  std::shared_ptr<CustomRTCMediaStream> customCameraVideoStream = {};
  std::shared_ptr<CustomRTCMediaStream> customAudioTrack = {};
  std::optional<bool> multiStream = {};                     ///< simulcast; true
  std::optional<Mode> mode = {};                            ///< SEND_AND_RECV
  std::optional<PreferredProtocol> preferredProtocol = {};  ///< UDP_OVER_TCP
  /// Host and port of the service; its default one without it.
  std::optional<std::string> signalingBaseUrl = {};
  std::optional<Dictionary> metaData = {};
  std::optional<std::string> secureKey = {};  ///< traced, redacted, and kept nowhere
  bool codecSwitchEnabled = false;
  bool enableBatching = true;
};

/// The door to the library. Never instantiated; any thread may call.
///
///     Kestrova::config(token);
///     auto meeting = Kestrova::initMeeting({.meetingId = "abcd", .participantName = "Ada"});
///     meeting->addEventListener(listener);
///     meeting->join();
class Kestrova {
public:
  Kestrova() = delete;

  /// Keeps the access token for the meetings made from now on. The library never looks into it.
  static void config(std::string token);

  /// Makes a meeting; it does nothing until `Meeting::join`.
  ///
  /// A missing token or meeting id is a mistake in the program: it stops the process with a message
  /// on stderr.
  static std::shared_ptr<Meeting> initMeeting(InitMeetingOptions options);

  static AuthorisationStatus getVideoPermissionStatus();
  static AuthorisationStatus getAudioPermissionStatus();
  /// The names of the cameras.
  static std::vector<std::string> getCameras();

  /// Which devices are "the camera" and "the microphone" of this process, from the next capture on.
  static void configureCapture(const CaptureConfig& config);

  static void setLogLevel(LogLevel level);
};

}  // namespace kestrova
