#include <kestrova/media/MediaCapturer.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/session/Kestrova.h>
#include <kestrova/session/MeetingCore.h>
#include <kestrova/session/Utils.h>
#include <kestrova/tracing/Trace.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace kestrova {
namespace {

struct Configuration {
  std::mutex configLock;
  std::string token;
};

Configuration& configuration() {
  static auto& instance = *new Configuration;
  return instance;
}

std::string currentToken() {
  std::scoped_lock held(configuration().configLock);
  return configuration().token;
}

SpanScope openInitSpan(const InitMeetingOptions& options) {
  const auto orElse = [](const std::string& text, const char* otherwise) {
    return text.empty() ? std::string(otherwise) : text;
  };
  const auto participantId = orElse(options.participantId, "Participant ID not provided");
  const auto participantName = orElse(options.participantName, "Participant Name not provided");
  const auto& video = options.customCameraVideoStream;
  const auto& audio = options.customAudioTrack;
  const auto videoText =
      video ? video->toJsonString(false) : std::string("Custom camera track not provided");
  const auto audioText =
      audio ? audio->toJsonString(true) : std::string("Custom audio track not provided");
  const auto url = options.signalingBaseUrl.value_or("Signaling base url not provided");
  const auto metaData = options.metaData ? jsonText(*options.metaData).value_or("")
                                         : std::string("Metadata not provided");
  const auto secureKey = options.secureKey.value_or("Not provided");
  return openSpan("Initializing the meeting",
                  {{"meetingId", options.meetingId},
                   {"participantId", participantId},
                   {"participantName", participantName},
                   {"micEnabled", options.micEnabled},
                   {"webcamEnabled", options.webcamEnabled},
                   {"customCameraVideoStream", videoText},
                   {"customAudioTrack", audioText},
                   {"multiStream", options.multiStream.value_or(true)},
                   {"mode", wireText(options.mode.value_or(Mode::SEND_AND_RECV))},
                   {"preferredProtocol",
                    wireText(options.preferredProtocol.value_or(PreferredProtocol::UDP_OVER_TCP))},
                   {"signalingBaseUrl", url},
                   {"metaData", metaData},
                   {"secureKey", secureKey}});
}

[[noreturn]] void stopProcess(const SpanScope& span, const char* error, const char* message) {
  traceError("Error while initialising the meeting", {{"error", error}}, span);
  SdkTracer::shared().endSpan(span, {.success = false, .message = error});
  std::fprintf(stderr, "Fatal error: %s\n", message);
  std::fflush(stderr);
  std::abort();
}

/// Tracks that the mode or the wishes leave without use are let go of at once.
void dropUnusableTracks(InitMeetingOptions& options) {
  const bool sends = sendsMedia(options.mode.value_or(Mode::SEND_AND_RECV));
  const auto drop = [](std::shared_ptr<CustomRTCMediaStream>& stream) {
    MediaCapturer::disposeCustomTrack(stream);
    stream.reset();
  };
  if (!sends || !options.webcamEnabled) drop(options.customCameraVideoStream);
  if (!sends || !options.micEnabled) drop(options.customAudioTrack);
}

}  // namespace

void Kestrova::config(std::string token) {
  {
    std::scoped_lock held(configuration().configLock);
    configuration().token = token;
  }
  SdkTracer::shared().ensureTelemetryOutput();
  trace("Configuring Kestrova with token", {{"token", token}});
}

std::shared_ptr<Meeting> Kestrova::initMeeting(InitMeetingOptions options) {
  const auto span = openInitSpan(options);
  auto token = currentToken();
  if (token.empty())
    stopProcess(span, "Please provide token to proceed!", "JWT server token is not provided");
  if (options.meetingId.empty())
    stopProcess(span, "Please provide meetingId to proceed!", "meetingId is not provided");

  // The store keeps what was asked for, also where the track itself is dropped next.
  auto store = std::make_shared<MediaConfigStore>(
      makeVideoConfig(options.customCameraVideoStream, options.multiStream),
      makeAudioConfig(options.customAudioTrack));
  dropUnusableTracks(options);

  const auto mode = options.mode.value_or(Mode::SEND_AND_RECV);
  auto local = std::make_shared<Participant>(Participant::Options{
      .id = options.participantId.empty() ? Utils::generatePeerId() : options.participantId,
      .displayName = options.participantName.empty() ? "Guest" : options.participantName,
      .isLocal = true,
      .mode = mode,
      .metaData = options.metaData});
  MeetingSettings settings{
      .id = options.meetingId,
      .accessToken = std::move(token),
      .micEnabled = options.micEnabled,
      .webcamEnabled = options.webcamEnabled,
      .multiStream = options.multiStream.value_or(true),
      .mode = mode,
      .preferredProtocol = options.preferredProtocol.value_or(PreferredProtocol::UDP_OVER_TCP),
      .signalingBaseUrl = options.signalingBaseUrl,
      .metaData = options.metaData,
      .codecSwitchEnabled = options.codecSwitchEnabled,
      .batchingEnabled = options.enableBatching};
  auto context =
      std::make_shared<MeetingContext>(std::move(settings), std::move(local), std::move(store),
                                       options.customCameraVideoStream, options.customAudioTrack);
  auto meeting = std::make_shared<Meeting>(MeetingCore::make(std::move(context)));
  trace("Meeting initialised successfully and ready to join!", {}, span);
  SdkTracer::shared().endSpan(span);
  return meeting;
}

AuthorisationStatus Kestrova::getVideoPermissionStatus() {
  return MediaCapturer::getVideoPermissionStatus();
}
AuthorisationStatus Kestrova::getAudioPermissionStatus() {
  return MediaCapturer::getAudioPermissionStatus();
}
std::vector<std::string> Kestrova::getCameras() {
  return MediaCapturer::getListOfCamerasAsString();
}

void Kestrova::configureCapture(const CaptureConfig& config) {
  Platform::current()->captureDevices->configure(config);
}

void Kestrova::setLogLevel(LogLevel level) {
  SdkTracer::shared().setLogLevel(level);
}

}  // namespace kestrova
