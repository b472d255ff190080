#include <kestrova/session/Meeting.h>
#include <kestrova/session/MeetingCore.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

Meeting::Meeting(std::shared_ptr<MeetingCore> core) : _core(std::move(core)) {}
Meeting::~Meeting() {
  _core->lifecycle->abandon();
}

std::string Meeting::id() const {
  return _core->context->settings.id;
}
std::shared_ptr<Participant> Meeting::localParticipant() const {
  return _core->context->localParticipant;
}
std::map<std::string, std::shared_ptr<Participant>> Meeting::participants() const {
  return _core->registry->participants();
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
  return _core->context->settings.mode;
}
PreferredProtocol Meeting::preferredProtocol() const {
  return _core->context->settings.preferredProtocol;
}
std::optional<std::string> Meeting::signalingBaseUrl() const {
  return _core->context->settings.signalingBaseUrl;
}
std::optional<HLSUrl> Meeting::hlsUrls() const {
  return _core->services.hlsUrls();
}
HLSState Meeting::hlsState() const {
  return _core->services.hlsState();
}
LiveStreamState Meeting::liveStreamState() const {
  return _core->services.liveStreamState();
}
RecordingState Meeting::recordingState() const {
  return _core->services.recordingState();
}
TranscriptionState Meeting::transcriptionState() const {
  return _core->services.transcriptionState();
}
std::shared_ptr<CustomRTCMediaStream> Meeting::customVideoMediaStream() const {
  return _core->context->customVideoMediaStream();
}
std::shared_ptr<CustomRTCMediaStream> Meeting::customAudioMediaStream() const {
  return _core->context->customAudioMediaStream();
}

void Meeting::join() {
  _core->lifecycle->join();
}
void Meeting::leave() {
  _core->lifecycle->leave();
}
void Meeting::end() {
  if (_core->mayAct("end")) _core->lifecycle->end();
}

void Meeting::addEventListener(const std::shared_ptr<MeetingEventListener>& listener) {
  _core->context->listeners->add(listener);
  _core->lifecycle->noteListenerAttached();
}
void Meeting::removeEventListener(const std::shared_ptr<MeetingEventListener>& listener) {
  _core->context->listeners->remove(listener);
  trace("Listener removed from Meeting");
}
void Meeting::removeAllEventListeners() {
  _core->context->listeners->removeAll();
  trace("All Listeners removed from Meeting");
}

}  // namespace kestrova
