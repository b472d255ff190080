#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/signalling/RemoteEventDispatcher.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/url/parse.hpp>

#include <unordered_map>
#include <utility>

namespace kestrova {
namespace {

/// One event on its way: what came, and whom it concerns.
struct Incoming {
  const Dictionary& data;
  const std::optional<std::string> peerId;
  RoomContext& context;
  Consuming& consuming;
  const std::shared_ptr<Transports>& transports;
  RoomClientDelegate& meeting;

  std::string read(const char* key, const char* fallback = "") const {
    return text(data, key, fallback);
  }
  std::string peer() const { return peerId.value_or(""); }
  std::optional<SpanScope> peerSpan() const { return context.spans.peer(peer()); }
};

using Handler = void (*)(const Incoming&);

std::string upper(std::string_view text) {
  return boost::algorithm::to_upper_copy(std::string(text));
}

LeaveReason reasonOf(const Dictionary& data) {
  const auto* reason = dictionary(data, "reason");
  constexpr auto unknown = static_cast<std::int64_t>(LeaveReason::unknown);
  return leaveReasonFrom(reason ? integer(*reason, "code", unknown) : unknown);
}

// ---- Participants ------------------------------------------------------------------------------

void newPeer(const Incoming& event) {
  Dictionary data = event.data;
  separateAgentMarkers(data);
  const auto peer = Peer::fromJson(data);
  if (peer.id.empty()) return;
  const auto span = openSpan(
      [&] { return "Participant '" + peer.displayName + "' joined the room"; },
      {{"peer.id", peer.id}, {"peerData", data}}, event.context.spans.get(RoomSpans::Slot::join));
  event.context.spans.setPeer(peer.id, span);
  trace("Emitting PARTICIPANT_JOINED event", {{"outcome", "SUCCESS"}}, span);
  event.meeting.addParticipant(peer);
}

void peerClosed(const Incoming& event) {
  const auto id = event.peer();
  const auto reason = reasonOf(event.data);
  trace("Emitting PARTICIPANT_LEFT Event",
        {{"leaveReasonCode", rawValue(reason)}, {"leaveReason", message(reason)}},
        event.peerSpan());
  event.context.spans.endPeer(id);
  event.meeting.removeParticipant(id, reason);
}

void peerModeChanged(const Incoming& event) {
  const auto mode = modeFromText(event.read("mode", "CONFERENCE"));
  if (!mode || !event.peerId) return;
  trace([&] { return "Participant Mode Changed to " + std::string(wireText(*mode)); }, {},
        event.peerSpan());
  event.meeting.participantModeChanged(*event.peerId, *mode);
}

void pinStateChanged(const Incoming& event) {
  const auto* state = dictionary(event.data, "state");
  if (!state || !event.peerId) return;
  const auto pinnedBy = event.read("pinnedBy");
  trace("Emitting PIN_STATE_CHANGED Event",
        {{"state", *state}, {"peerId", *event.peerId}, {"pinnedBy", pinnedBy}});
  event.meeting.pinStateChanged(*event.peerId, ParticipantPinState::fromJson(*state), pinnedBy);
}

void participantMediaStateChanged(const Incoming& event) {
  const auto newState = boolean(event.data, "newState");
  if (!newState || !event.peerId) return;
  const auto kind = event.read("kind");
  if (*event.peerId != event.context.options.meeting.localParticipantId)
    trace("Emitting MEDIA_STATUS_CHANGED Event",
          {{"peerId", *event.peerId},
           {"kind", kind},
           {"newStatus", *newState ? "enabled" : "disabled"}},
          event.peerSpan());
  event.meeting.participantMediaStatusChanged(*event.peerId, kind, *newState);
}

// ---- Streams -----------------------------------------------------------------------------------

template <void (Consuming::*handle)(const std::string&)>
void forConsumer(const Incoming& event) {
  if (const auto id = text(event.data, "consumerId")) (event.consuming.*handle)(*id);
}

void consumerLayersChanged(const Incoming& event) {
  if (const auto id = text(event.data, "consumerId"))
    event.consuming.handleConsumerLayersChanged(*id, event.data);
}

void restartIce(const Incoming& event) {
  const auto transportId = text(event.data, "transportId");
  const auto* iceParameters = dictionary(event.data, "iceParameters");
  if (!transportId || !iceParameters) return;
  trace([&] { return "Restarted ICE Parameters for TransportId: " + *transportId; },
        {{"iceParameters", *iceParameters}});
  spawn(event.transports, event.transports->handleRemoteRestartIce(*transportId, *iceParameters));
}

// ---- Requests from others ----------------------------------------------------------------------

void enableMic(const Incoming& event) {
  const auto byPeerId = text(event.data, "byPeerId");
  trace("Emitting ENABLE_MIC_REQUESTED Event", {{"byPeerId", byPeerId.value_or("N/A")}});
  event.meeting.enableMicRequested(byPeerId);
}

void enableWebcam(const Incoming& event) {
  const auto byPeerId = text(event.data, "byPeerId");
  trace("Emitting ENABLE_WEBCAM_REQUESTED Event", {{"byPeerId", byPeerId.value_or("N/A")}});
  event.meeting.enableWebcamRequested(byPeerId, std::nullopt);
}

// ---- The meeting -------------------------------------------------------------------------------

void closeMeeting(const Incoming& event) {
  auto close = [](std::weak_ptr<RoomClientDelegate> weak, LeaveReason reason) -> Task<void> {
    if (const auto meeting = weak.lock()) co_await meeting->closeMeetingRequested(reason);
  };
  spawn(close(event.context.delegate(), reasonOf(event.data)));
}

KestrovaError errorOf(const Dictionary& data) {
  return serviceError(integer(data, "code", 0)).withCause(serviceCause(data));
}

void reportError(const Incoming& event) {
  event.meeting.onError(errorOf(event.data));
}

// ---- Services ----------------------------------------------------------------------------------

template <const auto& texts, auto notify>
void stateChanged(const Incoming& event, const char* label) {
  const auto status = event.read("status");
  const auto state = texts.parse(status);
  if (!state) return;
  trace([&] { return label + upper(status); });
  (event.meeting.*notify)(*state);
}

void hlsStateChanged(const Incoming& event) {
  const auto status = event.read("status");
  const auto state = hlsStateTexts.parse(status);
  if (!state) return;
  trace([&] { return "HLS State: " + upper(status); });
  event.meeting.onHlsStateChanged(*state, HLSUrl::fromJson(event.data));
}

/// The service sends this flag as a boolean, a number or text.
bool countsAsTrue(const Value& value) {
  const auto described =
      value.is_string() ? std::string(value.get_string()) : jsonText(value).value_or("");
  const auto lower = boost::algorithm::to_lower_copy(described);
  return lower == "true" || lower == "1";
}

void hlsPlayableStateChanged(const Incoming& event) {
  const auto* playable = event.data.if_contains("isPlayable");
  if (!playable || !countsAsTrue(*playable)) return;
  Dictionary payload = event.data;
  for (const char* key : {"downstreamUrl", "playbackHlsUrl", "livestreamUrl"})
    if (const auto url = text(payload, key)) payload[key] = addressWithoutSecrets(*url);
  trace("HLS State: HLS_PLAYABLE", {{"eventPayload", payload}});
  event.meeting.onHlsStateChanged(HLSState::HLS_PLAYABLE, HLSUrl::fromJson(event.data));
}

void whiteboardStarted(const Incoming& event) {
  const auto url = event.read("url");
  if (url.empty() || !boost::urls::parse_uri_reference(url)) return;
  trace("Emitting WHITEBOARD_STARTED Event");
  event.meeting.whiteboardStarted(url);
}

void mediaRelayError(const Incoming& event) {
  trace("Emitting MEDIA_RELAY_ERROR Event");
  event.meeting.onMediaRelayError(event.read("meetingId"), event.read("reason"));
}

void mediaRelayRequestResponse(const Incoming& event) {
  trace("Emitting MEDIA_RELAY_REQUEST_RESPONSE Event");
  event.meeting.onMediaRelayRequestResponse(event.read("decision"), event.read("decidedBy"),
                                            event.read("meetingId"));
}

void mediaRelayRequestReceived(const Incoming& event) {
  trace("Emitting MEDIA_RELAY_REQUEST_RECEIVED Event");
  event.meeting.onMediaRelayRequestReceived(event.peer(), event.read("meetingId"),
                                            event.read("displayName"));
}

void unsupportedCodecAdded(const Incoming& event) {
  const auto codec = videoCodecFromServer(event.read("codec"));
  if (!codec) return;
  event.meeting.performVP8CodecFallback(*codec, event.read("kind"),
                                        text(event.data, "consumerPeerId"));
}

// ---- Characters and agents ---------------------------------------------------------------------

void addCharacter(const Incoming& event) {
  const auto peer = Peer::fromJson(event.data);
  const auto displayName = event.read("displayName", "defaultName");
  trace([&] { return "Adding Character " + peer.id + " in the meeting"; },
        {{"displayName", displayName}, {"data", event.data}});
  event.meeting.addCharacter(peer);
}

void removeCharacter(const Incoming& event) {
  const auto id = text(event.data, "id");
  if (!id) return;
  trace([&] { return "Removing Character " + *id + " from the meeting"; }, {{"data", event.data}});
  event.meeting.removedCharacter(*id);
}

void characterStateChanged(const Incoming& event) {
  const auto change = CharacterStateChange::fromJson(event.data);
  if (!change) return;
  trace([&] { return "Character State: " + std::string(characterStateTexts(change->status)); },
        {{"eventPayload", event.data}});
  event.meeting.characterStateChanged(*change);
}

void agentStateChanged(const Incoming& event) {
  const auto state = agentStateFromText(event.read("state", "idle"));
  if (!state) return;
  trace("Emitting AGENT_STATE_CHANGED Event");
  event.meeting.agentStateChanged(event.peer(), *state);
}

void agentTranscript(const Incoming& event) {
  trace("Emitting AGENT_TRANSCRIPTION Event");
  event.meeting.agentTranscriptReceived(event.peer(), event.read("text"),
                                        integer(event.data, "timestamp", 0));
}

void agentMetrics(const Incoming& event) {
  Dictionary metrics = event.data;
  metrics.erase("method");
  event.meeting.agentMetricsReceived(event.peer(), metrics);
}

// ---- The table ---------------------------------------------------------------------------------

/// Carried out where it arrives, on the socket's queue: what follows on the same connection needs
/// it done. Everything else runs on the main queue, in the order of arrival.
bool runsOnArrival(RemoteEvent event) {
  using Event = RemoteEvent;
  switch (event) {
    case Event::consumerClosed:
    case Event::consumerResumed:
    case Event::consumerPaused:
    case Event::consumerLayersChanged:
    case Event::restartIce:
    case Event::entryResponded:
    case Event::close:
      return true;
    default:
      return false;
  }
}

const std::unordered_map<RemoteEvent, Handler>& handlers() {
  using Event = RemoteEvent;
  static const auto& table = *new std::unordered_map<RemoteEvent, Handler>{
      {Event::newPeer, newPeer},
      {Event::peerClosed, peerClosed},
      {Event::consumerClosed, forConsumer<&Consuming::handleConsumerClosed>},
      {Event::consumerResumed, forConsumer<&Consuming::handleConsumerResumed>},
      {Event::consumerPaused, forConsumer<&Consuming::handleConsumerPaused>},
      {Event::consumerLayersChanged, consumerLayersChanged},
      {Event::recordingStarted, [](const Incoming& event) { event.meeting.recordingStarted(); }},
      {Event::recordingStopped, [](const Incoming& event) { event.meeting.recordingStopped(); }},
      {Event::livestreamStarted, [](const Incoming& event) { event.meeting.livestreamStarted(); }},
      {Event::livestreamStopped, [](const Incoming& event) { event.meeting.livestreamStopped(); }},
      {Event::activeSpeaker,
       [](const Incoming& event) { event.meeting.speakerChanged(event.peerId); }},
      {Event::enableMic, enableMic},
      {Event::disableMic,
       [](const Incoming& event) { event.meeting.disableMicRequested(event.peerId); }},
      {Event::enableWebcam, enableWebcam},
      {Event::disableWebcam,
       [](const Incoming& event) { event.meeting.disableWebcamRequested(event.peerId); }},
      {Event::close, closeMeeting},
      {Event::error, reportError},
      {Event::livestreamStateChanged,
       [](const Incoming& event) {
         stateChanged<liveStreamStateTexts, &RoomClientDelegate::onLivestreamStateChanged>(
             event, "Livestream State: ");
       }},
      {Event::recordingStateChanged,
       [](const Incoming& event) {
         stateChanged<recordingStateTexts, &RoomClientDelegate::onRecordingStateChanged>(
             event, "Recording State: ");
       }},
      {Event::hlsStateChanged, hlsStateChanged},
      {Event::hlsPlayableStateChanged, hlsPlayableStateChanged},
      {Event::pinStateChanged, pinStateChanged},
      {Event::peerModeChanged, peerModeChanged},
      {Event::restartIce, restartIce},
      {Event::pubsubMessage,
       [](const Incoming& event) { event.meeting.pubsubMessageReceived(event.data); }},
      {Event::transcriptionStateChanged,
       [](const Incoming& event) {
         stateChanged<transcriptionStateTexts, &RoomClientDelegate::onTranscriptionStateChanged>(
             event, "Transcription State: ");
       }},
      {Event::transcriptionText,
       [](const Incoming& event) {
         event.meeting.transcriptionText(TranscriptionText::fromJson(event.data));
       }},
      {Event::whiteboardStarted, whiteboardStarted},
      {Event::whiteboardStopped,
       [](const Incoming& event) {
         trace("Emitting WHITEBOARD_STOPPED Event");
         event.meeting.whiteboardStopped();
       }},
      {Event::addCharacter, addCharacter},
      {Event::removeCharacter, removeCharacter},
      {Event::characterMessage,
       [](const Incoming& event) {
         event.meeting.characterMessageReceived(CharacterMessage::fromJson(event.data));
       }},
      {Event::characterStateChanged, characterStateChanged},
      {Event::entryResponded,
       [](const Incoming& event) { event.meeting.entryResponded(event.data); }},
      {Event::entryRequested,
       [](const Incoming& event) { event.meeting.entryRequested(event.data); }},
      {Event::mediaRealyStarted,
       [](const Incoming& event) {
         trace("Emitting MEDIA_RELAY_STARTED Event",
               {{"meetingId", event.read("meetingId", "N/A")}});
         event.meeting.onMediaRelayStarted(event.read("meetingId"));
       }},
      {Event::mediaRelayStopped,
       [](const Incoming& event) {
         trace("Emitting MEDIA_RELAY_STOPPED Event");
         event.meeting.onMediaRelayStopped(event.read("meetingId"));
       }},
      {Event::mediaRelayError, mediaRelayError},
      {Event::mediaRelayRequestResponse, mediaRelayRequestResponse},
      {Event::mediaRelayRequestReceived, mediaRelayRequestReceived},
      {Event::consumerResumedSubManager,
       [](const Incoming& event) {
         event.meeting.handleParticipantResumeBySubManager(event.data);
       }},
      {Event::consumerPausedSubManager,
       [](const Incoming& event) {
         event.meeting.handleParticipantPausedBySubManager(event.data);
       }},
      {Event::realtimeStoreValueChanged,
       [](const Incoming& event) { event.meeting.handleRealtimeStoreValueChanged(event.data); }},
      {Event::participantMediaStateChanged, participantMediaStateChanged},
      {Event::agentStateChanged, agentStateChanged},
      {Event::agentTranscript, agentTranscript},
      {Event::agentMetrics, agentMetrics},
      {Event::unsupportedCodecAdded, unsupportedCodecAdded},
  };
  return table;
}

}  // namespace

RemoteEventDispatcher::RemoteEventDispatcher(std::shared_ptr<RoomContext> context,
                                             std::shared_ptr<Consuming> consuming,
                                             std::shared_ptr<Transports> transports)
    : _context(std::move(context)),
      _consuming(std::move(consuming)),
      _transports(std::move(transports)) {}

void RemoteEventDispatcher::handle(RemoteEvent event, const Dictionary& response) const {
  const auto found = handlers().find(event);
  if (found == handlers().end()) return;
  const auto* payload = dictionary(response, "data");
  auto run = [handler = found->second, consuming = _consuming, transports = _transports,
              data = payload ? *payload : Dictionary()](RoomContext& context,
                                                        RoomClientDelegate& meeting) {
    handler({data, text(data, "peerId"), context, *consuming, transports, meeting});
  };
  const auto meeting = _context->delegate();
  // An end may come right behind it, by another way.
  if (event == RemoteEvent::error && meeting && payload) meeting->noteError(errorOf(*payload));
  if (!runsOnArrival(event)) return onMain(_context, std::move(run));
  if (meeting) run(*_context, *meeting);
}

}  // namespace kestrova
