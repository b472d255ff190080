#include <kestrova/session/ParticipantEvents.h>

#include <utility>

namespace kestrova {
namespace {

class ParticipantEventsListener final : public ParticipantEventListener {
public:
  explicit ParticipantEventsListener(ParticipantEvents events) : _events(std::move(events)) {}

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& participant) override {
    if (_events.onStreamEnabled) _events.onStreamEnabled(stream, participant);
  }
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>& participant) override {
    if (_events.onStreamDisabled) _events.onStreamDisabled(stream, participant);
  }
  void e2eeStateChanged(const std::shared_ptr<Participant>& participant, E2EEState state,
                        const std::shared_ptr<MediaStream>& stream) override {
    if (_events.e2eeStateChanged) _events.e2eeStateChanged(participant, state, stream);
  }
  void onStreamPaused(const std::string& kind, const std::string& reason) override {
    if (_events.onStreamPaused) _events.onStreamPaused(kind, reason);
  }
  void onStreamResumed(const std::string& kind, const std::string& reason) override {
    if (_events.onStreamResumed) _events.onStreamResumed(kind, reason);
  }
  void onMediaStatusChanged(const std::string& peerId, MediaType kind, bool newStatus) override {
    if (_events.onMediaStatusChanged) _events.onMediaStatusChanged(peerId, kind, newStatus);
  }
  void onAgentStateChanged(AgentState state,
                           const std::shared_ptr<Participant>& participant) override {
    if (_events.onAgentStateChanged) _events.onAgentStateChanged(state, participant);
  }
  void onAgentTranscriptionReceived(const TranscriptionSegment& segment,
                                    const std::shared_ptr<Participant>& participant) override {
    if (_events.onAgentTranscriptionReceived)
      _events.onAgentTranscriptionReceived(segment, participant);
  }
  void onAgentMetrics(const Dictionary& metrics,
                      const std::shared_ptr<Participant>& participant) override {
    if (_events.onAgentMetrics) _events.onAgentMetrics(metrics, participant);
  }

private:
  const ParticipantEvents _events;
};

}  // namespace

std::shared_ptr<ParticipantEventListener> makeListener(ParticipantEvents events) {
  return std::make_shared<ParticipantEventsListener>(std::move(events));
}

}  // namespace kestrova
