#include <kestrova/media/AudioManager.h>
#include <kestrova/media/EncodingPresets.h>
#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/MediaConfigStore.h>
#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/ScreenSharing.h>
#include <kestrova/session/Kestrova.h>
#include <kestrova/session/MeetingCore.h>
#include <kestrova/session/Utils.h>
#include <kestrova/tracing/ConsoleLogger.h>
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
  std::shared_ptr<BaseKeyProvider> baseKeyProvider;
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
  const auto url = options.signalingBaseUrl ? addressWithoutSecrets(*options.signalingBaseUrl)
                                            : std::string("Signaling base url not provided");
  const auto metaData = options.metaData ? jsonText(*options.metaData).value_or("")
                                         : std::string("Metadata not provided");
  // Not even for those that may see secrets: it would leave this machine.
  const auto* secureKey = options.secureKey ? "[REDACTED]" : "Not provided";
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

/// The case's name, or the word for what was left to the library.
template <class T>
std::string_view orDefault(const std::optional<T>& value) {
  return value ? text(*value) : "default";
}

[[noreturn]] void refuse(ScopedSpan& span, const char* line, const char* error,
                         RoomClientError failure) {
  span.fail(line, {{"error", error}});
  throw RoomClientFailure(failure);
}

void seeToPermission(AuthorisationStatus status, const char* requesting) {
  if (status == AuthorisationStatus::notDetermined) trace(requesting);
  if (status == AuthorisationStatus::denied || status == AuthorisationStatus::restricted)
    if (const auto delegate = MediaCapturer::delegate()) delegate->handlePermission();
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
      .preferredProtocol = options.preferredProtocol.value_or(PreferredProtocol::UDP_OVER_TCP),
      .signalingBaseUrl = options.signalingBaseUrl,
      .metaData = options.metaData,
      .codecSwitchEnabled = options.codecSwitchEnabled,
      .batchingEnabled = options.enableBatching};
  auto sending = std::make_shared<LocalSending>(mode, options.customCameraVideoStream,
                                                options.customAudioTrack);
  auto context = std::make_shared<MeetingContext>(std::move(settings), std::move(local),
                                                  std::move(store), std::move(sending));
  auto meeting = std::make_shared<Meeting>(MeetingCore::make(std::move(context)));
  trace("Meeting initialised successfully and ready to join!", {}, span);
  SdkTracer::shared().endSpan(span);
  return meeting;
}

Task<std::shared_ptr<CustomRTCMediaStream>> Kestrova::createCameraVideoTrack(
    CameraVideoTrackOptions options) {
  const auto encoderConfig = options.encoderConfig.value_or(CustomVideoTrackConfig::h720p_w1280p);
  const bool multiStream = options.multiStream.value_or(true);
  const auto bitrateMode = options.bitrateMode.value_or(BitrateMode::BALANCED);
  const auto& row = videoTrackPreset(encoderConfig);
  const CaptureFormat size{row.width, row.height, MediaCapturer::defaultFrameRate};
  ScopedSpan span(
      "Creating Custom Video Track",
      {{"config",
        Dictionary{{"height", size.height}, {"width", size.width}, {"frameRate", size.fps}}},
       {"facingMode", options.facingMode == CameraPosition::front ? "Front" : "Back"},
       {"multiStream", multiStream ? "true" : "false"},
       {"codec", orDefault(options.codec)},
       {"bitrateMode", text(bitrateMode)},
       {"maxLayer", orDefault(options.maxLayer)}});
  auto capturer = MediaCapturer::make();
  const auto position = options.facingMode.value_or(CameraPosition::front);
  auto track = co_await capturer->createCustomVideoStream(position, size);
  if (!track)
    refuse(span, "Error while creating custom video track", "Device could not create video track!",
           RoomClientError::couldNotCreateVideoProducer);
  CustomStreamFields fields{.videoTrack = std::move(track),
                            .multiStream = multiStream,
                            .videoCodec = options.codec,
                            .bitrateMode = bitrateMode,
                            .maxLayer = options.maxLayer,
                            .encoderConfig = encoderConfig,
                            .facingMode = options.facingMode,
                            .capturer = std::move(capturer)};
  auto stream = std::make_shared<CustomRTCMediaStream>(std::move(fields));
  span.event("Custom Video Track created successfully",
             {{"config", [&] { return stream->toJsonString(false); }}});
  co_return stream;
}

std::shared_ptr<CustomRTCMediaStream> Kestrova::createAudioTrack(AudioTrackOptions options) {
  const auto encoderConfig =
      options.encoderConfig.value_or(CustomAudioTrackConfig::speech_standard);
  const auto& noise = options.noiseConfig;
  ScopedSpan span("Creating Custom Audio Track",
                  {{"encoderConfig", text(encoderConfig)},
                   {"noiseConfig",
                    [&] { return noise ? noise->toJsonString() : "Noise Config Not Provided"; }}});
  auto capturer = MediaCapturer::make();
  auto track = capturer->createCustomAudioTrack(audioConstraints(noise));
  if (!track)
    refuse(span, "Error while creating custom audio track", "Device could not create audio track!",
           RoomClientError::couldNotCreateAudioProducer);
  span.event("Custom Audio Track created successfully");
  return std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.audioTrack = std::move(track),
                         .audioEncoderConfig = encoderConfig,
                         .noiseConfig = noise,
                         .capturer = std::move(capturer)});
}

AuthorisationStatus Kestrova::getVideoPermissionStatus() {
  return MediaCapturer::getVideoPermissionStatus();
}
AuthorisationStatus Kestrova::getAudioPermissionStatus() {
  return MediaCapturer::getAudioPermissionStatus();
}
void Kestrova::getVideoPermission() {
  seeToPermission(Platform::current()->captureDevices->cameraAuthorization(),
                  "Requesting permission for camera");
}
void Kestrova::getAudioPermission() {
  seeToPermission(Platform::current()->captureDevices->microphoneAuthorization(),
                  "Requesting permission for microphone");
}
void Kestrova::setAuthorisationDelegate(std::weak_ptr<AuthorisationDelegate> delegate) {
  MediaCapturer::setDelegate(std::move(delegate));
}
void Kestrova::addAuthorisationDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate) {
  MediaCapturer::addDelegate(delegate);
}
void Kestrova::removeAuthorisationDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate) {
  MediaCapturer::removeDelegate(delegate);
}
std::vector<std::string> Kestrova::getCameras() {
  return MediaCapturer::getListOfCamerasAsString();
}
std::vector<std::string> Kestrova::getAudioDevices() {
  std::vector<std::string> names;
  for (auto& mic : AudioManager::make(false)->getMics()) names.push_back(std::move(mic.deviceName));
  return names;
}

void Kestrova::setKeyProvider(std::shared_ptr<BaseKeyProvider> provider) {
  ScopedSpan span("Setting up key provider for E2EE");
  if (!provider || !provider->isSharedKey())
    refuse(span, "Error while setting up key provider", "Shared Key not provided in key provider!",
           RoomClientError::sharedKeyNotFound);
  setBaseKeyProvider(std::move(provider));
  span.event("Key provider is setup successfully");
}

std::shared_ptr<BaseKeyProvider> Kestrova::baseKeyProvider() {
  std::scoped_lock held(configuration().configLock);
  return configuration().baseKeyProvider;
}

void Kestrova::setBaseKeyProvider(std::shared_ptr<BaseKeyProvider> provider) {
  std::scoped_lock held(configuration().configLock);
  configuration().baseKeyProvider.swap(provider);
}

void Kestrova::configureScreenShare(const ScreenShareConfig& config) {
  if (const auto screen = Platform::current()->screenSharing) screen->configure(config);
}

void Kestrova::configureCapture(const CaptureConfig& config) {
  Platform::current()->captureDevices->configure(config);
}

void Kestrova::setLogLevel(LogLevel level) {
  SdkTracer::shared().setLogLevel(level);
}

void Kestrova::setLogHandler(LogHandler handler) {
  ConsoleLogger::setHandler(std::move(handler));
}

}  // namespace kestrova
