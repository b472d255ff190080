#include <kestrova/platform/Await.h>
#include <kestrova/session/Meeting.h>
#include <kestrova/session/MeetingCore.h>
#include <kestrova/session/ScreenShareControls.h>
#include <kestrova/signalling/SDKConfiguration.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/this_coro.hpp>

#include <mutex>
#include <stdexcept>
#include <utility>

namespace kestrova {

Meeting::Meeting(std::shared_ptr<MeetingCore> core) : _core(std::move(core)) {}
Meeting::~Meeting() {
  _core->lifecycle->abandon();
}

std::string Meeting::id() const {
  return _core->context->id();
}
std::shared_ptr<Participant> Meeting::localParticipant() const {
  return _core->context->localParticipant;
}
std::map<std::string, std::shared_ptr<Participant>> Meeting::participants() const {
  return _core->registry->participants();
}
std::shared_ptr<Participant> Meeting::getParticipant(const std::string& forStream) const {
  return _core->registry->participantForStream(forStream);
}
std::map<std::string, std::shared_ptr<AICharacter>> Meeting::characters() const {
  return _core->characters->characters();
}
std::map<std::string, ParticipantPinState> Meeting::pinnedParticipants() const {
  return _core->registry->pinnedParticipants();
}
MeetingState Meeting::meetingState() const {
  return _core->lifecycle->meetingState();
}
std::optional<std::string> Meeting::activePresenterId() const {
  return _core->registry->activePresenterId();
}
std::optional<Mode> Meeting::meetingMode() const {
  return _core->context->sending->mode();
}
PreferredProtocol Meeting::preferredProtocol() const {
  return _core->context->settings.preferredProtocol;
}
std::optional<std::string> Meeting::signalingBaseUrl() const {
  return _core->context->settings.signalingBaseUrl;
}
bool Meeting::e2eeEnabled() const {
  return _core->context->e2eeEnabled();
}
std::optional<HLSUrl> Meeting::hlsUrls() const {
  return _core->services->hlsUrls();
}
HLSState Meeting::hlsState() const {
  return _core->services->hlsState();
}
LiveStreamState Meeting::liveStreamState() const {
  return _core->services->liveStreamState();
}
RecordingState Meeting::recordingState() const {
  return _core->services->recordingState();
}
TranscriptionState Meeting::transcriptionState() const {
  return _core->services->transcriptionState();
}
std::shared_ptr<CustomRTCMediaStream> Meeting::customVideoMediaStream() const {
  return _core->context->sending->customVideoMediaStream();
}
std::shared_ptr<CustomRTCMediaStream> Meeting::customAudioMediaStream() const {
  return _core->context->sending->customAudioMediaStream();
}

void Meeting::join() {
  _core->lifecycle->join();
}
void Meeting::leave() {
  _core->lifecycle->leave();
}
void Meeting::end() {
  if (_core->allows("end")) _core->lifecycle->end();
}

// ---- The end -----------------------------------------------------------------------------------

namespace {

/// Whoever waits on an event loop goes with it: what is told afterwards finds nobody.
class Waiting final : public boost::asio::execution_context::service {
public:
  static inline boost::asio::execution_context::id id;
  explicit Waiting(boost::asio::execution_context& loop) : service(loop) {}

  struct Place {
    std::mutex lock;
    std::optional<Completion<MeetingEnd>> done;  // under lock

    void leave() {
      std::scoped_lock held(lock);
      done.reset();
    }
    void tell(const MeetingEnd& end) {
      std::scoped_lock held(lock);  // so that the loop doesn't go meanwhile
      if (done) (*done)(end);
      done.reset();
    }
  };

  std::weak_ptr<Place> add(Completion<MeetingEnd> done) {
    auto place = std::make_shared<Place>();
    place->done = std::move(done);
    std::scoped_lock held(_lock);
    std::erase_if(_places, [](const auto& each) {
      std::scoped_lock reading(each->lock);
      return !each->done;
    });
    _places.push_back(place);
    return place;
  }

private:
  void shutdown() override {
    std::vector<std::shared_ptr<Place>> places;
    {
      std::scoped_lock held(_lock);
      places.swap(_places);
    }
    for (const auto& place : places) place->leave();
  }

  std::mutex _lock;
  std::vector<std::shared_ptr<Place>> _places;
};

Task<MeetingEnd> await(std::shared_ptr<MeetingOver> over) {
  const auto executor = co_await boost::asio::this_coro::executor;
  auto& waiting = boost::asio::use_service<Waiting>(executor.context());
  auto start = [over, &waiting](Completion<MeetingEnd> done) {
    over->whenTold([weak = waiting.add(std::move(done))](const MeetingEnd& end) {
      if (const auto place = weak.lock()) place->tell(end);
    });
  };
  co_return co_await awaitCallback<MeetingEnd>(std::move(start));
}

std::optional<MeetingEnd> waitFor(std::shared_ptr<const MeetingOver> over,
                                  std::optional<std::chrono::milliseconds> atMost) {
  if (MainQueue::shared().isCurrent())
    throw std::logic_error("the end of a meeting can't be waited for where it is told");
  return over->wait(atMost);
}

}  // namespace

Task<MeetingEnd> Meeting::untilOver() const {
  return await(_core->lifecycle->over);
}
MeetingEnd Meeting::waitUntilOver() const {
  return *waitFor(_core->lifecycle->over, std::nullopt);
}
std::optional<MeetingEnd> Meeting::waitUntilOver(std::chrono::milliseconds atMost) const {
  return waitFor(_core->lifecycle->over, atMost);
}
std::optional<MeetingEnd> Meeting::over() const {
  return _core->lifecycle->over->told();
}

// ---- Media -------------------------------------------------------------------------------------

void Meeting::unmuteMic(const std::shared_ptr<CustomRTCMediaStream>& customAudioStream) {
  if (_core->allows("unmuteMic")) _core->media->microphone->turnOn(customAudioStream);
}
void Meeting::muteMic() {
  if (_core->allows("muteMic")) _core->media->microphone->turnOff();
}
void Meeting::enableWebcam(const std::shared_ptr<CustomRTCMediaStream>& customVideoStream) {
  if (_core->allows("enableWebcam")) _core->media->camera->turnOn(customVideoStream);
}
void Meeting::disableWebcam() {
  if (_core->allows("disableWebcam")) _core->media->camera->turnOff();
}
void Meeting::enableScreenShare() {
  if (_core->allows("enableScreenShare")) _core->media->screen->enableScreenShare();
}
void Meeting::disableScreenShare() {
  if (_core->allows("disableScreenShare")) _core->media->screen->disableScreenShare();
}
void Meeting::switchWebcam() {
  if (_core->allows("switchWebcam")) _core->media->camera->switchWebcam();
}
void Meeting::setVideoProcessor(const std::shared_ptr<KestrovaVideoProcessor>& processor) {
  if (_core->allows("setVideoProcessor")) _core->media->camera->setVideoProcessor(processor);
}
std::vector<AudioDevice> Meeting::getMics() {
  if (!_core->allows("getMics")) return {};
  return _core->audio->getMics();
}
void Meeting::changeMic(const std::string& selectedDevice) {
  if (_core->allows("changeMic")) _core->audio->changeMic(selectedDevice);
}
void Meeting::changeMode(Mode mode) {
  if (_core->allows("changeMode")) _core->modeChange->changeMode(mode);
}

// ---- The service -------------------------------------------------------------------------------

void Meeting::pauseAllStreams(const std::optional<std::string>& kind) {
  _core->controls->pauseAllStreams(kind);
}
void Meeting::resumeAllStreams(const std::optional<std::string>& kind) {
  _core->controls->resumeAllStreams(kind);
}
void Meeting::enableAdaptiveSubscription() {
  _core->controls->ask(ServiceOperation::enableAdaptiveSubscription);
}
void Meeting::disableAdaptiveSubscription() {
  _core->controls->ask(ServiceOperation::disableAdaptiveSubscription);
}
void Meeting::switchTo(const std::string& meetingId, const std::optional<std::string>& token,
                       std::optional<Mode> mode) {
  _core->controls->switchTo(meetingId, token, mode);
}

void Meeting::startRecording(const RecordingOptions& options) {
  _core->controls->startRecording(options);
}
void Meeting::stopRecording() {
  _core->controls->ask(ServiceOperation::stopRecording);
}
void Meeting::startLivestream(const std::vector<LivestreamOutput>& outputs,
                              const std::optional<LivestreamConfig>& config) {
  _core->controls->startLivestream(outputs, config);
}
void Meeting::stopLivestream() {
  _core->controls->ask(ServiceOperation::stopLivestream);
}
void Meeting::startHLS(const std::optional<HLSConfig>& config,
                       const std::optional<PostTranscriptionConfig>& transcription) {
  _core->controls->startHLS(config, transcription);
}
void Meeting::stopHLS() {
  _core->controls->ask(ServiceOperation::stopHLS);
}
void Meeting::startTranscription(const std::optional<TranscriptionConfig>& config) {
  _core->controls->startTranscription(config);
}
void Meeting::stopTranscription() {
  _core->controls->ask(ServiceOperation::stopTranscription);
}
void Meeting::startWhiteboard() {
  _core->controls->startWhiteboard();
}
void Meeting::stopWhiteboard() {
  _core->controls->ask(ServiceOperation::stopWhiteboard);
}

void Meeting::requestMediaRelay(const std::string& meetingId,
                                const std::optional<std::string>& token,
                                const std::optional<std::vector<std::string>>& kinds) {
  _core->controls->requestMediaRelay(meetingId, token, kinds);
}
void Meeting::handleRelayRequestResponse(const std::string& decision, const std::string& peerId,
                                         const std::string& meetingId) {
  _core->controls->handleRelayRequestResponse(decision, peerId, meetingId);
}
void Meeting::stopMediaRelay(const std::string& meetingId) {
  _core->controls->stopMediaRelay(meetingId);
}
void Meeting::enableRelayMedia(const std::string& meetingId, const std::string& kind) {
  _core->controls->switchRelayMedia(ServiceOperation::enableRelayMedia, meetingId, kind);
}
void Meeting::disableRelayMedia(const std::string& meetingId, const std::string& kind) {
  _core->controls->switchRelayMedia(ServiceOperation::disableRelayMedia, meetingId, kind);
}

std::shared_ptr<AICharacter> Meeting::createCharacter(CharacterConfig config) {
  return _core->characters->createCharacter(std::move(config));
}

// ---- Realtime data -----------------------------------------------------------------------------

std::shared_ptr<PubSub> Meeting::pubsub() const {
  return _core->realtime->pubsub();
}
std::shared_ptr<RealtimeStore> Meeting::realtimeStore() const {
  return _core->realtime->realtimeStore();
}

void Meeting::uploadBase64File(const std::string& base64Data, const std::string& token,
                               const std::string& fileName, FileCompletion completion) const {
  if (!completion) completion = [](const auto&) {};
  if (!_core->allows("uploadBase64File")) return completion(std::nullopt);
  _core->context->roomClient()->uploadBase64File(base64Data, token, fileName,
                                                 std::move(completion));
}
void Meeting::fetchBase64File(const std::string& url, const std::string& token,
                              FileCompletion completion) const {
  if (!completion) completion = [](const auto&) {};
  if (!_core->allows("fetchBase64File")) return completion(std::nullopt);
  _core->context->roomClient()->fetchBase64File(url, token, std::move(completion));
}

// ---- Wrapper libraries -------------------------------------------------------------------------

namespace {

/// A wrapper library makes itself known by this prefix.
bool isWrapperName(const std::string& name) {
  return boost::algorithm::istarts_with(name, "unity-");
}

}  // namespace

void Meeting::setAttributes(const std::string& name, const std::string& version) {
  if (isWrapperName(name)) SDKConfiguration::shared().setIdentity(name, version);
}

Dictionary Meeting::getAttributes() const {
  const auto& configuration = SDKConfiguration::shared();
  if (!isWrapperName(configuration.sdkName())) return {};
  return {{"enabledLogs", configuration.logsEnabled()},
          {"logEndPoint", configuration.logsEndpoint()},
          {"jwtKey", configuration.jwtKey()},
          {"sessionId", _core->lifecycle->identity.sessionId().value_or("")},
          {"peerId", _core->lifecycle->identity.peerId().value_or("")}};
}

// ---- Listeners ---------------------------------------------------------------------------------

void Meeting::addEventListener(const std::shared_ptr<MeetingEventListener>& listener) {
  _core->context->listeners.add(listener);
  _core->lifecycle->noteListenerAttached();
}
ListenerHandle Meeting::listen(std::shared_ptr<MeetingEventListener> listener) {
  _core->lifecycle->noteListenerAttached();
  return _core->context->listeners.keep(std::move(listener));
}
ListenerHandle Meeting::listen(MeetingEvents events) {
  return listen(makeListener(std::move(events)));
}
void Meeting::removeEventListener(const std::shared_ptr<MeetingEventListener>& listener) {
  _core->context->listeners.remove(listener);
  trace("Listener removed from Meeting");
}
void Meeting::removeAllEventListeners() {
  _core->context->listeners.removeAll();
  trace("All Listeners removed from Meeting");
}

}  // namespace kestrova
