#include <kestrova/session/ParticipantRegistry.h>
#include <kestrova/tracing/Trace.h>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

PinType pinTypeOf(const ParticipantPinState& state) {
  const bool cam = state.cam.value_or(false);
  const bool share = state.share.value_or(false);
  if (cam == share) return PinType::SHARE_AND_CAM;
  return cam ? PinType::CAM : PinType::SHARE;
}

}  // namespace

ParticipantRegistry::ParticipantRegistry(std::shared_ptr<MeetingContext> context)
    : _context(std::move(context)),
      _participantQueue(SerialQueue::make("com.sdk.participant.queue")) {}

ParticipantRegistry::Participants ParticipantRegistry::participants() const {
  return _participantQueue->sync([this] { return _participants; });
}

std::shared_ptr<Participant> ParticipantRegistry::participant(const std::string& id) const {
  return _participantQueue->sync([&]() -> std::shared_ptr<Participant> {
    const auto found = _participants.find(id);
    return found == _participants.end() ? nullptr : found->second;
  });
}

std::shared_ptr<Participant> ParticipantRegistry::anybody(const std::string& id) const {
  return id == _context->localParticipant->id() ? _context->localParticipant : participant(id);
}

std::optional<std::string> ParticipantRegistry::activePresenterId() const {
  std::scoped_lock held(_presenterLock);
  return _activePresenterId;
}

ParticipantRegistry::Pins ParticipantRegistry::pinnedParticipants() const {
  std::scoped_lock held(_pinnedLock);
  return _pinnedParticipants;
}

// ---- Who is there ------------------------------------------------------------------------------

void ParticipantRegistry::addParticipant(const Peer& peer,
                                         std::weak_ptr<MeetingActionValidating> validator) {
  if (peer.id.empty()) return;
  const auto fresh =
      peer.agentId ? std::make_shared<AgentParticipant>(peer) : std::make_shared<Participant>(peer);
  fresh->setMeetingActionValidator(std::move(validator));
  fresh->setDelegate(_context->existingRoomClient());
  const auto participant = _participantQueue->sync(
      [&] { return _participants.emplace(fresh->id(), fresh).first->second; });
  // What changed while the connection was lost.
  if (participant != fresh && modeFromText(peer.mode) && participant->mode() != fresh->mode())
    participantModeChanged(peer.id, fresh->mode());
  // Also told when the id was known already, with the participant that is listed.
  _context->emit([participant](auto& listener) { listener.onParticipantJoined(participant); });
}

void ParticipantRegistry::removeParticipant(const std::string& id, LeaveReason leaveReason) {
  const auto participant = _participantQueue->sync([&]() -> std::shared_ptr<Participant> {
    auto node = _participants.extract(id);
    return node.empty() ? nullptr : std::move(node.mapped());
  });
  if (!participant) return;
  participant->removeAllStreams();
  endPresenting(id);
  {
    std::scoped_lock held(_pinnedLock);
    _pinnedParticipants.erase(id);
  }
  _context->emit([participant](auto& listener) { listener.onParticipantLeft(participant); });
  _context->emit([participant, leaveReason](auto& listener) {
    listener.onParticipantLeft(participant, leaveReason);
  });
  MainQueue::shared().async([participant] { participant->releaseKeptListeners(); });
}

void ParticipantRegistry::keepOnly(const std::set<std::string>& ids) {
  std::size_t gone = 0;
  for (const auto& [id, participant] : participants()) {
    if (ids.contains(id)) {
      participant->forgetAskedPins();
      // What it says while this participant was away was not heard.
      const auto who = std::dynamic_pointer_cast<AgentParticipant>(participant);
      if (who && who->agentState() != AgentState::IDLE)
        who->handleAgentStateChanged(AgentState::IDLE);
      continue;
    }
    ++gone;
    removeParticipant(id, LeaveReason::unknown);
  }
  // A list that lacks somebody who is there would show here.
  if (gone > 0) trace("Participants who left while the connection was lost", {{"count", gone}});
}

void ParticipantRegistry::removeAll(LeaveReason leaveReason) {
  for (const auto& [id, gone] : participants()) removeParticipant(id, leaveReason);
}

void ParticipantRegistry::clear() {
  endStreams();
  const auto gone = _participantQueue->sync([this] { return std::exchange(_participants, {}); });
  // Behind what was told to them before.
  MainQueue::shared().async([gone] {
    for (const auto& [id, participant] : gone) participant->releaseKeptListeners();
  });
  forgetPins();
}

void ParticipantRegistry::endStreams() {
  for (const auto& [id, participant] : participants()) participant->endStreams();
  _context->localParticipant->endStreams();
}

void ParticipantRegistry::dismissListeners() {
  for (const auto& [id, participant] : participants()) participant->dismissListeners();
}

void ParticipantRegistry::forgetPins() {
  std::scoped_lock held(_pinnedLock);
  _pinnedParticipants.clear();
}

// ---- Streams -----------------------------------------------------------------------------------

bool ParticipantRegistry::addStream(const std::shared_ptr<MediaStream>& stream,
                                    const std::string& participantId) {
  const auto owner = participant(participantId);
  if (!owner) return false;
  stream->setDelegate(_context->existingRoomClient());
  if (stream->kind() == MediaType::share) setPresenter(participantId);
  owner->addStream(stream);
  return true;
}

bool ParticipantRegistry::removeStream(const std::string& id) {
  for (const auto& [participantId, owner] : participants()) {
    const auto stream = owner->removeStream(id);
    if (!stream) continue;
    const auto left = owner->streams();
    const bool stillShares = std::any_of(left.begin(), left.end(), [](const auto& each) {
      return each.second->kind() == MediaType::share;
    });
    if (stream->kind() == MediaType::share && !stillShares) endPresenting(participantId);
    return true;
  }
  return false;
}

std::shared_ptr<Participant> ParticipantRegistry::participantForStream(
    const std::string& streamId) const {
  for (const auto& [id, owner] : participants())
    if (owner->streams().contains(streamId)) return owner;
  return nullptr;
}

void ParticipantRegistry::setPresenter(const std::string& participantId) {
  {
    std::scoped_lock held(_presenterLock);
    _activePresenterId = participantId;
  }
  tellPresenter(participantId);
}

void ParticipantRegistry::endPresenting(const std::string& participantId) {
  {
    std::scoped_lock held(_presenterLock);
    if (_activePresenterId != participantId) return;
    _activePresenterId.reset();
  }
  tellPresenter(std::nullopt);
}

void ParticipantRegistry::tellPresenter(const std::optional<std::string>& participantId) {
  const auto traceIt = [participantId] {
    trace("Emitting PRESENTER_CHANGED Event",
          {{"activePresenterId", participantId.value_or("N/A")}});
  };
  _context->emit(traceIt,
                 [participantId](auto& listener) { listener.onPresenterChanged(participantId); });
}

// ---- What happens to them ----------------------------------------------------------------------

void ParticipantRegistry::handleStreamStateChange(StreamState state, const std::string& peerId,
                                                  const std::string& trackId) {
  if (const auto participant = anybody(peerId))
    participant->handleStreamStateChanged(state, trackId);
}

bool ParticipantRegistry::takeMetrics(const StreamMeasurement& measured) {
  const auto named = anybody(measured.ownerId);
  if (named && named->takeMetrics(measured.streamId, measured.metrics)) return true;
  const auto owner = participantForStream(measured.streamId);
  return owner && owner->takeMetrics(measured.streamId, measured.metrics);
}

void ParticipantRegistry::e2eeStateChanged(const std::string& peerID, E2EEState state,
                                           const std::string& streamId) {
  if (const auto participant = anybody(peerID))
    participant->handleE2EEStateChanged(state, streamId);
  else
    trace([&] { return "Could not find participant with ID: " + peerID; });
}

void ParticipantRegistry::participantMediaStatusChanged(const std::string& peerId,
                                                        const std::string& kind, bool newState) {
  if (const auto participant = anybody(peerId))
    participant->handleMediaStatusChanged(peerId, mediaTypeFrom(kind), newState);
}

void ParticipantRegistry::participantModeChanged(const std::string& participantId, Mode mode) {
  const auto participant = anybody(participantId);
  if (!participant) return;
  participant->setMode(mode);
  _context->emit([participantId, mode](auto& listener) {
    listener.onParticipantModeChanged(participantId, mode);
  });
}

void ParticipantRegistry::pinStateChanged(const std::string& participantId,
                                          ParticipantPinState pinState) {
  const bool pinned = pinState.cam.value_or(false) || pinState.share.value_or(false);
  {
    std::scoped_lock held(_pinnedLock);
    if (pinned)
      _pinnedParticipants[participantId] = pinState;
    else
      _pinnedParticipants.erase(participantId);
  }
  if (const auto participant = anybody(participantId)) participant->setPinState(pinState);
  _context->emit([participantId, type = pinTypeOf(pinState)](auto& listener) {
    listener.onPinStateChanged(participantId, type);
  });
}

void ParticipantRegistry::handleParticipantPausedBySubManager(const Dictionary& data) {
  if (const auto who = participant(text(data, "peerId", ""))) who->handleParticipantPause(data);
}

void ParticipantRegistry::handleParticipantResumeBySubManager(const Dictionary& data) {
  if (const auto who = participant(text(data, "peerId", ""))) who->handleParticipantResume(data);
}

std::shared_ptr<AgentParticipant> ParticipantRegistry::agent(const std::string& id) const {
  return std::dynamic_pointer_cast<AgentParticipant>(participant(id));
}

void ParticipantRegistry::agentStateChanged(const std::string& peerId, AgentState state) {
  if (const auto who = agent(peerId)) who->handleAgentStateChanged(state);
}

void ParticipantRegistry::agentTranscriptReceived(const std::string& peerId,
                                                  const TranscriptionSegment& segment) {
  const auto who = agent(peerId);
  if (!who) return;
  who->handleTranscriptionReceived(segment, who);
  _context->localParticipant->handleTranscriptionReceived(segment, who);
}

void ParticipantRegistry::agentMetricsReceived(const std::string& peerId,
                                               const Dictionary& metrics) {
  if (const auto who = agent(peerId)) who->handleAgentMetrics(metrics);
}

void ParticipantRegistry::speakerChanged(const std::optional<std::string>& participantId) {
  const auto traceIt = [participantId] {
    trace("Active Speaker", {{"peerId", participantId.value_or("N/A")}});
  };
  _context->emit(traceIt,
                 [participantId](auto& listener) { listener.onSpeakerChanged(participantId); });
}

}  // namespace kestrova
