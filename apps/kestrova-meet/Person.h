#pragma once

#include <kestrova/session/Participant.h>
#include <kestrova/session/ParticipantEventListener.h>

#include "MediaWatch.h"
#include <memory>
#include <string>

namespace kestrova::meet {

/// Watches one participant for as long as the program runs: their streams, and of an agent what it
/// does and says. Used on the main queue only.
class Person final : public ParticipantEventListener, public std::enable_shared_from_this<Person> {
public:
  using Clock = MediaWatch::Clock;

  /// \param recorded gets the camera and the microphone; may be null
  static std::shared_ptr<Person> make(const std::shared_ptr<Participant>& participant,
                                      MediaWatch::Teller tell,
                                      std::shared_ptr<recording::Recording> recorded);

  /// A participant may come again, as another object of the same id.
  void came(const std::shared_ptr<Participant>& participant);
  void left();
  /// Nothing once they have left.
  std::shared_ptr<Participant> participant() const { return _participant.lock(); }
  const std::string& id() const { return _media->id(); }
  /// \returns what went wrong with it, or nothing
  std::string finishRecording() { return _media->finishRecording(); }

  /// Once a second: frame rate, and new statistics of every stream.
  void measure(Clock::time_point now) { _media->measure(now); }
  PersonRow row() const;
  RemoteSummary summary(Clock::time_point joinStarted) const {
    return _media->summary(joinStarted);
  }
  /// The last picture, of the camera or else of the shared screen.
  VideoFrame lastPicture() const { return _media->lastPicture(); }

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& participant) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>& participant) override;
  void e2eeStateChanged(const std::shared_ptr<Participant>& participant, E2EEState state,
                        const std::shared_ptr<MediaStream>& stream) override;
  void onAgentStateChanged(AgentState state,
                           const std::shared_ptr<Participant>& participant) override;
  void onAgentTranscriptionReceived(const TranscriptionSegment& segment,
                                    const std::shared_ptr<Participant>& participant) override;
  void onAgentMetrics(const Dictionary& metrics,
                      const std::shared_ptr<Participant>& participant) override;

private:
  explicit Person(std::shared_ptr<MediaWatch> media) : _media(std::move(media)) {}

  const std::shared_ptr<MediaWatch> _media;
  bool _here = true;
  std::weak_ptr<Participant> _participant;
};

}  // namespace kestrova::meet
