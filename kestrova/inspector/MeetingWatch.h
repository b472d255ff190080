#pragma once

#include <kestrova/inspector/Inbox.h>
#include <kestrova/inspector/RecordTypes.h>
#include <kestrova/model/ListenerHandle.h>
#include <kestrova/session/CharacterEvents.h>
#include <kestrova/session/MeetingEventListener.h>
#include <kestrova/session/ParticipantEvents.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {
class MediaStream;
class Meeting;
}  // namespace kestrova

namespace kestrova::inspector {

/// Listens to a meeting, its participants and characters and their streams, and puts what it hears
/// into the inbox. Everything but construction and destruction happens on the main queue.
class MeetingWatch final : public MeetingEventListener,
                           public std::enable_shared_from_this<MeetingWatch> {
public:
  explicit MeetingWatch(std::shared_ptr<Inbox> inbox) : _inbox(std::move(inbox)) {}
  /// Leaves no listener behind.
  ~MeetingWatch() override;

  /// Takes in who and what is there, and listens from now on. The meeting is held weakly.
  void start(const std::shared_ptr<Meeting>& meeting);

  void onMeetingJoined(const std::optional<std::string>& switchMeetingId) override;
  void onMeetingLeft(LeaveReason reason) override;
  void onMeetingStateChanged(MeetingState meetingState) override;
  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override;
  void onParticipantLeft(const std::shared_ptr<Participant>& participant,
                         LeaveReason reason) override;
  void onParticipantModeChanged(const std::string& participantId, Mode mode) override;
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override;
  void onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                           std::int64_t timestamp) override;
  void onError(const KestrovaError& error) override;
  void onSocketError(const std::string& message) override;

private:
  struct Person {
    std::string name;
    ListenerHandle listening;
  };
  struct Stream {
    std::weak_ptr<MediaStream> stream;
    std::string participantId;
    std::string kind;
    StreamState state = StreamState::ACTIVE;
    std::string onState{};
    std::string onMetrics{};
  };

  void awaitEnd(const std::shared_ptr<Meeting>& meeting);
  void over(const std::string& why);
  void enter(const std::string& state);
  using Streams = std::map<std::string, std::shared_ptr<MediaStream>>;

  /// \returns whether it wasn't there before
  bool come(const std::shared_ptr<Participant>& participant);
  bool come(const std::shared_ptr<AICharacter>& character);
  void add(ParticipantFacts facts, ListenerHandle listening, const Streams& streams);
  void tellCame(const std::string& id);
  void leave(const std::string& id, const std::string& why);
  ParticipantEvents eventsOf(const std::string& participantId);
  CharacterEvents characterEventsOf(const std::string& characterId);
  void take(const std::shared_ptr<MediaStream>& stream, const std::string& participantId);
  void release(const std::string& streamId);
  void stateChanged(const std::string& streamId, StreamState state);
  void markLocal(const std::string& what);
  void mark(Mark mark);

  const std::shared_ptr<Inbox> _inbox;
  std::weak_ptr<Meeting> _meeting;
  MeetingFacts _facts;
  bool _wasJoined = false;
  bool _isOver = false;
  std::map<std::string, Person> _people;   // who are there
  std::map<std::string, Stream> _streams;  // that flow
};

}  // namespace kestrova::inspector
