#pragma once

#include <kestrova/media/MediaType.h>
#include <kestrova/model/CharacterTypes.h>
#include <kestrova/platform/ValuesFwd.h>

#include <memory>
#include <string>

namespace kestrova {

class MediaStream;
class Participant;

/// What happens to one participant. All operations are called on the main queue and have empty
/// defaults.
class ParticipantEventListener {
public:
  virtual ~ParticipantEventListener() = default;

  /// A stream is there; told once. One that `Participant::streams` holds already may still
  /// be told, if it came a moment ago: where both are looked at, compare `MediaStream::id`. A
  /// listener that was added in `onParticipantJoined` hears of every stream here and needs no look
  /// at `streams()`. One that was added later hears of later streams only.
  ///
  /// Of the local participant: the service has taken the publication, and from now on what is
  /// pushed or captured is sent to the others. After a return from a lost connection it comes
  /// again, with a new stream.
  virtual void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                               const std::shared_ptr<Participant>& participant) {
    (void)stream, (void)participant;
  }
  virtual void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                                const std::shared_ptr<Participant>& participant) {
    (void)stream, (void)participant;
  }
  virtual void e2eeStateChanged(const std::shared_ptr<Participant>& participant, E2EEState state,
                                const std::shared_ptr<MediaStream>& stream) {
    (void)participant, (void)state, (void)stream;
  }
  virtual void onStreamPaused(const std::string& kind, const std::string& reason) {
    (void)kind, (void)reason;
  }
  virtual void onStreamResumed(const std::string& kind, const std::string& reason) {
    (void)kind, (void)reason;
  }
  /// The participant's microphone, camera or share was switched on or off.
  virtual void onMediaStatusChanged(const std::string& peerId, MediaType kind, bool newStatus) {
    (void)peerId, (void)kind, (void)newStatus;
  }
  virtual void onAgentStateChanged(AgentState state,
                                   const std::shared_ptr<Participant>& participant) {
    (void)state, (void)participant;
  }
  virtual void onAgentTranscriptionReceived(const TranscriptionSegment& segment,
                                            const std::shared_ptr<Participant>& participant) {
    (void)segment, (void)participant;
  }
  virtual void onAgentMetrics(const Dictionary& metrics,
                              const std::shared_ptr<Participant>& participant) {
    (void)metrics, (void)participant;
  }
};

}  // namespace kestrova
