#include <kestrova/inspector/Clock.h>
#include <kestrova/inspector/MeetingRecord.h>
#include <kestrova/inspector/MeetingWatch.h>
#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Task.h>
#include <kestrova/session/AICharacter.h>
#include <kestrova/session/Meeting.h>

#include <utility>

namespace kestrova::inspector {
namespace {

std::string kindOf(const MediaStream& stream) {
  if (stream.kind() != MediaType::share) return std::string(text(stream.kind()));
  return stream.audioTrack() ? "shareAudio" : "share";
}

/// "VP8" of "video/VP8".
std::string shortCodec(const std::string& codec) {
  return codec.substr(codec.find('/') + 1);
}

StreamSample sampleOf(const StreamMetrics& metrics, bool isSound) {
  StreamSample sample{.t = metrics.timestampMs,
                      .bitrateKbps = metrics.bitrateKbps,
                      .roundTripMs = metrics.roundTripMs,
                      .lossPercent = metrics.packetLossPercent,
                      .jitterMs = metrics.jitterMs,
                      .level = metrics.audioLevel};
  if (isSound) return sample;
  sample.framesPerSecond = metrics.framesPerSecond;
  sample.freezes = static_cast<double>(metrics.freezes);
  if (metrics.width > 0) sample.width = metrics.width;
  if (metrics.height > 0) sample.height = metrics.height;
  return sample;
}

}  // namespace

MeetingWatch::~MeetingWatch() {
  for (const auto& [id, each] : _streams) {
    const auto stream = each.stream.lock();
    if (!stream) continue;
    stream->off(MediaStreamEventType::state, each.onState);
    stream->offMetrics(each.onMetrics);
  }
}

void MeetingWatch::start(const std::shared_ptr<Meeting>& meeting) {
  _meeting = meeting;
  const std::shared_ptr<MeetingEventListener> self = shared_from_this();
  meeting->addEventListener(self);
  _facts = {
      .id = meeting->id(), .localParticipantId = meeting->localParticipant()->id(), .state = {}};
  come(meeting->localParticipant());
  for (const auto& [id, participant] : meeting->participants()) come(participant);
  for (const auto& [id, character] : meeting->characters()) come(character);
  enter(std::string(text(meeting->meetingState())));
  awaitEnd(meeting);
}

// ---- The meeting -------------------------------------------------------------------------------

/// A meeting that is let go of tells its listeners nothing more.
void MeetingWatch::awaitEnd(const std::shared_ptr<Meeting>& meeting) {
  auto wait = [](Task<MeetingEnd> ending, std::weak_ptr<MeetingWatch> weak) -> Task<void> {
    const MeetingEnd end = co_await std::move(ending);
    MainQueue::shared().async([weak, why = kestrova::text(end)] {
      if (const auto self = weak.lock()) self->over(why);
    });
  };
  spawn(wait(meeting->untilOver(), weak_from_this()));
}

void MeetingWatch::enter(const std::string& state) {
  if (_facts.state == state) return;  // RECONNECTING is told again and again
  _facts.state = state;
  _inbox->put([facts = _facts](MeetingRecord& record) { record.meetingIs(facts); });
  mark({.t = now(), .kind = "state", .text = state});
}

void MeetingWatch::onMeetingStateChanged(MeetingState meetingState) {
  if (!_isOver) enter(std::string(text(meetingState)));
}

void MeetingWatch::onMeetingJoined(const std::optional<std::string>& switchMeetingId) {
  if (const auto meeting = _meeting.lock()) _facts.id = meeting->id();
  _inbox->put([facts = _facts](MeetingRecord& record) { record.meetingIs(facts); });
  const bool again = std::exchange(_wasJoined, true);
  markLocal(switchMeetingId ? " moved to " + *switchMeetingId : again ? " is back" : " joined");
}

void MeetingWatch::onMeetingLeft(LeaveReason reason) {
  over(std::string(text(reason)));
}

void MeetingWatch::over(const std::string& why) {
  if (_isOver) return;
  markLocal(" left: " + why);
  while (!_people.empty()) leave(_people.begin()->first, {});
  if (_facts.state != text(MeetingState::FAILED))
    enter(std::string(text(MeetingState::DISCONNECTED)));
  _isOver = true;
}

void MeetingWatch::onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                                       std::int64_t timestamp) {
  mark({.t = timestamp,
        .kind = "quality",
        .text = std::string(text(type)) + " " + std::string(text(state)),
        .participantId = _facts.localParticipantId});
}

void MeetingWatch::onError(const KestrovaError& error) {
  mark({.t = now(), .kind = "error", .text = textWithoutSecrets(text(error)), .code = code(error)});
}

void MeetingWatch::onSocketError(const std::string& message) {
  mark({.t = now(), .kind = "error", .text = "connection: " + textWithoutSecrets(message)});
}

void MeetingWatch::markLocal(const std::string& what) {
  const auto& id = _facts.localParticipantId;
  const auto person = _people.find(id);
  mark({.t = now(),
        .kind = "participant",
        .text = (person == _people.end() ? id : person->second.name) + what,
        .participantId = id});
}

void MeetingWatch::mark(Mark mark) {
  _inbox->put([mark = std::move(mark)](MeetingRecord& record) { record.marked(mark); });
}

// ---- Participants ------------------------------------------------------------------------------

bool MeetingWatch::come(const std::shared_ptr<Participant>& participant) {
  const auto& id = participant->id();
  if (_isOver || _people.contains(id)) return false;  // announced again after a lost connection
  add({.id = id,
       .name = participant->displayName(),
       .local = participant->isLocal(),
       .mode = std::string(text(participant->mode()))},
      participant->listen(eventsOf(id)), participant->streams());
  return true;
}

bool MeetingWatch::come(const std::shared_ptr<AICharacter>& character) {
  const auto id = character->characterId();
  if (_isOver || _people.contains(id)) return false;
  const auto mode = character->mode();
  add({.id = id,
       .name = character->displayName(),
       .mode = mode ? std::string(text(*mode)) : std::string()},
      character->listen(characterEventsOf(id)), character->streams());
  return true;
}

void MeetingWatch::add(ParticipantFacts facts, ListenerHandle listening, const Streams& streams) {
  facts.joinedAt = now();
  _people[facts.id] = {facts.name, std::move(listening)};
  _inbox->put([facts](MeetingRecord& record) { record.participantCame(facts); });
  for (const auto& [streamId, stream] : streams) take(stream, facts.id);
}

void MeetingWatch::tellCame(const std::string& id) {
  mark({.t = now(),
        .kind = "participant",
        .text = _people.at(id).name + " joined",
        .participantId = id});
}

void MeetingWatch::onParticipantJoined(const std::shared_ptr<Participant>& participant) {
  if (come(participant)) tellCame(participant->id());
}

void MeetingWatch::onCharacterJoined(const std::shared_ptr<AICharacter>& character) {
  if (come(character)) tellCame(character->characterId());
}

void MeetingWatch::onCharacterLeft(const std::shared_ptr<AICharacter>& character) {
  leave(character->characterId(), "the character has left");
}

void MeetingWatch::onParticipantLeft(const std::shared_ptr<Participant>& participant,
                                     LeaveReason reason) {
  leave(participant->id(), std::string(text(reason)));
}

/// \param why empty where the end of the meeting says it
void MeetingWatch::leave(const std::string& id, const std::string& why) {
  auto gone = _people.extract(id);
  if (gone.empty()) return;
  for (auto each = _streams.begin(); each != _streams.end();) {
    const auto stream = each++;
    if (stream->second.participantId == gone.key()) release(stream->first);
  }
  _inbox->put(
      [id = gone.key(), when = now()](MeetingRecord& record) { record.participantLeft(id, when); });
  if (why.empty()) return;
  mark({.t = now(),
        .kind = "participant",
        .text = gone.mapped().name + " left: " + why,
        .participantId = gone.key()});
}

void MeetingWatch::onParticipantModeChanged(const std::string& participantId, Mode mode) {
  _inbox->put([participantId, mode = std::string(text(mode))](MeetingRecord& record) {
    record.modeChanged(participantId, mode);
  });
}

ParticipantEvents MeetingWatch::eventsOf(const std::string& participantId) {
  const auto weak = weak_from_this();
  const auto paused = [weak, participantId](const char* what) {
    return [weak, participantId, what](const std::string& kind, const std::string& reason) {
      const auto self = weak.lock();
      if (!self) return;
      self->mark({.t = now(),
                  .kind = "stream",
                  .text = kind + what + (reason.empty() ? "" : ": " + reason),
                  .participantId = participantId});
    };
  };
  return {.onStreamEnabled =
              [weak, participantId](const auto& stream, const auto&) {
                if (const auto self = weak.lock()) self->take(stream, participantId);
              },
          .onStreamDisabled =
              [weak](const auto& stream, const auto&) {
                if (const auto self = weak.lock()) self->release(stream->id());
              },
          .onStreamPaused = paused(" paused"),
          .onStreamResumed = paused(" resumed")};
}

CharacterEvents MeetingWatch::characterEventsOf(const std::string& characterId) {
  const auto weak = weak_from_this();
  return {.onStreamEnabled =
              [weak, characterId](const auto& stream, const auto&) {
                if (const auto self = weak.lock()) self->take(stream, characterId);
              },
          .onStreamDisabled =
              [weak](const auto& stream, const auto&) {
                if (const auto self = weak.lock()) self->release(stream->id());
              }};
}

// ---- Streams -----------------------------------------------------------------------------------

void MeetingWatch::take(const std::shared_ptr<MediaStream>& stream,
                        const std::string& participantId) {
  const auto& id = stream->id();
  if (_isOver || _streams.contains(id)) return;  // seen at the participant, and now told
  const auto weak = weak_from_this();
  const bool isSound = stream->audioTrack() != nullptr;
  Stream taken{.stream = stream, .participantId = participantId, .kind = kindOf(*stream)};
  _inbox->put(
      [participantId, facts = StreamFacts{.id = id, .kind = taken.kind, .startedAt = now()}](
          MeetingRecord& record) { record.streamStarted(participantId, facts); });
  mark({.t = now(),
        .kind = "stream",
        .text = taken.kind + " started",
        .participantId = participantId,
        .streamId = id});
  taken.onState = stream->on(MediaStreamEventType::state, [weak, id](StreamState state) {
    if (const auto self = weak.lock()) self->stateChanged(id, state);
  });
  // Straight on: what is told every two seconds of every stream needs nothing of this object.
  taken.onMetrics = stream->onMetrics([inbox = _inbox, id, isSound](const StreamMetrics& metrics) {
    inbox->put([id, sample = sampleOf(metrics, isSound), codec = shortCodec(metrics.codec)](
                   MeetingRecord& record) { record.sampled(id, sample, codec); });
  });
  _streams.emplace(id, std::move(taken));
}

void MeetingWatch::release(const std::string& streamId) {
  const auto found = _streams.extract(streamId);
  if (found.empty()) return;
  const auto& gone = found.mapped();
  if (const auto stream = gone.stream.lock()) {
    stream->off(MediaStreamEventType::state, gone.onState);
    stream->offMetrics(gone.onMetrics);
  }
  _inbox->put([id = found.key(), when = now()](MeetingRecord& record) {
    record.streamStateChanged(id, "ENDED");
    record.streamEnded(id, when);
  });
  mark({.t = now(),
        .kind = "stream",
        .text = gone.kind + " ended",
        .participantId = gone.participantId,
        .streamId = found.key()});
}

void MeetingWatch::stateChanged(const std::string& streamId, StreamState state) {
  const auto found = _streams.find(streamId);
  if (found == _streams.end()) return;
  if (state == StreamState::ENDED) return release(streamId);
  // That it flows is told again and again; a second freeze is another one.
  const bool flows = state == StreamState::ACTIVE;
  if (std::exchange(found->second.state, state) == state && flows) return;
  std::string name(text(state));
  _inbox->put(
      [streamId, name](MeetingRecord& record) { record.streamStateChanged(streamId, name); });
  mark({.t = now(),
        .kind = "stream",
        .text = std::move(name),
        .participantId = found->second.participantId,
        .streamId = streamId});
}

}  // namespace kestrova::inspector
