#include <kestrova/session/ParticipantMulticastDelegate.h>

namespace kestrova {

void ParticipantMulticastDelegate::onStreamEnabled(
    const std::shared_ptr<MediaStream>& stream, const std::shared_ptr<Participant>& participant) {
  multicastDelegate.invoke([&](auto& listener) { listener.onStreamEnabled(stream, participant); });
}

void ParticipantMulticastDelegate::onStreamDisabled(
    const std::shared_ptr<MediaStream>& stream, const std::shared_ptr<Participant>& participant) {
  multicastDelegate.invoke([&](auto& listener) { listener.onStreamDisabled(stream, participant); });
}

void ParticipantMulticastDelegate::e2eeStateChanged(const std::shared_ptr<Participant>& participant,
                                                    E2EEState state,
                                                    const std::shared_ptr<MediaStream>& stream) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.e2eeStateChanged(participant, state, stream); });
}

void ParticipantMulticastDelegate::onStreamPaused(const std::string& kind,
                                                  const std::string& reason) {
  multicastDelegate.invoke([&](auto& listener) { listener.onStreamPaused(kind, reason); });
}

void ParticipantMulticastDelegate::onStreamResumed(const std::string& kind,
                                                   const std::string& reason) {
  multicastDelegate.invoke([&](auto& listener) { listener.onStreamResumed(kind, reason); });
}

void ParticipantMulticastDelegate::onMediaStatusChanged(const std::string& peerId, MediaType kind,
                                                        bool newStatus) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onMediaStatusChanged(peerId, kind, newStatus); });
}

void ParticipantMulticastDelegate::onAgentStateChanged(
    AgentState state, const std::shared_ptr<Participant>& participant) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onAgentStateChanged(state, participant); });
}

void ParticipantMulticastDelegate::onAgentTranscriptionReceived(
    const TranscriptionSegment& segment, const std::shared_ptr<Participant>& participant) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onAgentTranscriptionReceived(segment, participant); });
}

void ParticipantMulticastDelegate::onAgentMetrics(const Dictionary& metrics,
                                                  const std::shared_ptr<Participant>& participant) {
  multicastDelegate.invoke([&](auto& listener) { listener.onAgentMetrics(metrics, participant); });
}

}  // namespace kestrova
