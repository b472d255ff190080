#pragma once

#include <kestrova/media/AuthorisationDelegate.h>
#include <kestrova/media/BaseKeyProvider.h>
#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/model/MetaData.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/platform/Capture.h>
#include <kestrova/platform/ScreenShareConfig.h>
#include <kestrova/platform/TaskFwd.h>
#include <kestrova/session/Meeting.h>
#include <kestrova/tracing/LogHandler.h>
#include <kestrova/tracing/TraceCategories.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// What a meeting is asked for with, in the order in which a person would say it. It is an
/// aggregate, as all the library's options are: designated fields must keep the order of their
/// declaration.
struct InitMeetingOptions {
  std::string meetingId;             ///< empty stops the process
  std::string participantId = {};    ///< empty: one is made up
  std::string participantName = {};  ///< empty: "Guest"
  bool micEnabled = false;
  bool webcamEnabled = false;
  /// The application's own tracks; without them the library captures camera and microphone. One for
  /// a medium that is not enabled here, or in a mode without sending, is disposed of: give it to
  /// `Meeting::enableWebcam` or `unmuteMic` when it is time.
  std::shared_ptr<CustomRTCMediaStream> customCameraVideoStream = {};
  std::shared_ptr<CustomRTCMediaStream> customAudioTrack = {};
  std::optional<bool> multiStream = {};                     ///< simulcast; true
  std::optional<Mode> mode = {};                            ///< SEND_AND_RECV
  std::optional<PreferredProtocol> preferredProtocol = {};  ///< UDP_OVER_TCP
  /// Host and port of the service; its default one without it.
  std::optional<std::string> signalingBaseUrl = {};
  MetaData metaData = {};
  std::optional<std::string> secureKey = {};  ///< traced, redacted, and kept nowhere
  bool codecSwitchEnabled = false;
  bool enableBatching = true;
};

/// A camera track of the application's own, and how it is to be sent.
struct CameraVideoTrackOptions {
  std::optional<CustomVideoTrackConfig> encoderConfig = {};  ///< h720p_w1280p
  std::optional<CameraPosition> facingMode = {};             ///< front
  std::optional<bool> multiStream = {};                      ///< simulcast; true
  std::optional<VideoCodec> codec = {};                      ///< VP8
  std::optional<BitrateMode> bitrateMode = {};               ///< BALANCED
  std::optional<EncodingLayer> maxLayer = {};                ///< MAX_LAYER_3
};

/// A microphone track of the application's own, and how it is to be sent.
struct AudioTrackOptions {
  std::optional<NoiseConfig> noiseConfig = {};               ///< no processing
  std::optional<CustomAudioTrackConfig> encoderConfig = {};  ///< speech_standard
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

  /// Starts a camera for a track that the application holds: to hand to `initMeeting` or to
  /// `Meeting::enableWebcam`, or to look at first. The camera runs until the stream's tracks are
  /// disposed of or the last reference to the stream goes.
  ///
  /// It waits for the camera, 3 s at most. An application without coroutines of its own gets a
  /// future:
  ///
  ///     auto camera = boost::asio::co_spawn(
  ///         boost::asio::system_executor(),
  ///         Kestrova::createCameraVideoTrack({.facingMode = CameraPosition::front}),
  ///         boost::asio::use_future);
  ///     auto meeting = Kestrova::initMeeting({.meetingId = "abcd", .webcamEnabled = true,
  ///                                           .customCameraVideoStream = camera.get()});
  ///
  /// \throws RoomClientFailure couldNotCreateVideoProducer when no camera gave a track
  static Task<std::shared_ptr<CustomRTCMediaStream>> createCameraVideoTrack(
      CameraVideoTrackOptions options = {});
  /// The same for the microphone, at once: opening it takes some ms.
  /// \throws RoomClientFailure couldNotCreateAudioProducer when there is no microphone
  static std::shared_ptr<CustomRTCMediaStream> createAudioTrack(AudioTrackOptions options = {});

  static AuthorisationStatus getVideoPermissionStatus();
  static AuthorisationStatus getAudioPermissionStatus();
  /// Sees to the permission for a device before it is needed. A refusal is told to the
  /// `AuthorisationDelegate`. Linux asks nobody: what is undecided shows when the device is opened.
  static void getVideoPermission();
  static void getAudioPermission();
  /// Who is told, in place of whoever was; held weakly, for the process.
  static void setAuthorisationDelegate(std::weak_ptr<AuthorisationDelegate> delegate);
  /// Somebody more, and one of them less.
  static void addAuthorisationDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate);
  static void removeAuthorisationDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate);
  /// The names of the cameras.
  static std::vector<std::string> getCameras();
  /// The names of the microphones, as `Meeting::changeMic` and `CaptureConfig::microphone` take
  /// them. May wait for the sound server, half a second at most; none where there is no such
  /// server.
  static std::vector<std::string> getAudioDevices();

  /// Encrypts camera and microphone from end to end in the meetings that are joined from now on,
  /// and decrypts what they receive; `ParticipantEventListener::e2eeStateChanged` tells how that
  /// fares. A meeting that has begun to join stays as it is. The service can neither record nor
  /// transcribe such a meeting. A shared screen is not encrypted. See docs/encryption.md. \throws
  /// RoomClientFailure sharedKeyNotFound when the provider has no key; an earlier provider
  ///   then stays
  static void setKeyProvider(std::shared_ptr<BaseKeyProvider> provider);
  static std::shared_ptr<BaseKeyProvider> baseKeyProvider();
  /// Nothing ends encryption for the meetings that are joined from now on.
  static void setBaseKeyProvider(std::shared_ptr<BaseKeyProvider> provider);

  /// Which devices are "the camera" and "the microphone" of this process, from the next capture on:
  /// one that runs is not disturbed.
  static void configureCapture(const CaptureConfig& config);

  /// Who sends the screen when a meeting shares it, from the next share on. \throws
  /// std::invalid_argument for a group whose name is none of a directory, or too long
  static void configureScreenShare(const ScreenShareConfig& config);

  static void setLogLevel(LogLevel level);
  /// Gives the log of this process to `handler` instead of the standard error stream; nullptr gives
  /// it back. The level still says which lines there are.
  ///
  ///     Kestrova::setLogHandler([](const LogLine& line) { log(text(line.level), line.text); });
  ///
  /// Any thread may call. The handler may call the library; a line that it thereby brings about on
  /// its own thread goes to the standard error stream, as does a line at which it throws. One that
  /// is replaced may still get the lines that are on their way on other threads.
  static void setLogHandler(LogHandler handler);
};

}  // namespace kestrova
