#pragma once

#include <kestrova/session/MulticastDelegate.h>
#include <kestrova/session/ParticipantEventListener.h>

namespace kestrova {

/// Every listener of one object behind a single listener. Its operations call each member in turn,
/// on the calling thread, which must be the main queue's.
class ParticipantMulticastDelegate final : public ParticipantEventListener {
public:
  void add(const std::shared_ptr<ParticipantEventListener>& listener) {
    multicastDelegate.add(listener);
  }
  void remove(const std::shared_ptr<ParticipantEventListener>& listener) {
    multicastDelegate.remove(listener);
  }
  void removeAll() { multicastDelegate.removeAll(); }

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& participant) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>& participant) override;
  void e2eeStateChanged(const std::shared_ptr<Participant>& participant, E2EEState state,
                        const std::shared_ptr<MediaStream>& stream) override;
  void onStreamPaused(const std::string& kind, const std::string& reason) override;
  void onStreamResumed(const std::string& kind, const std::string& reason) override;
  void onMediaStatusChanged(const std::string& peerId, MediaType kind, bool newStatus) override;
  void onAgentStateChanged(AgentState state,
                           const std::shared_ptr<Participant>& participant) override;
  void onAgentTranscriptionReceived(const TranscriptionSegment& segment,
                                    const std::shared_ptr<Participant>& participant) override;
  void onAgentMetrics(const Dictionary& metrics,
                      const std::shared_ptr<Participant>& participant) override;

private:
  MulticastDelegate<ParticipantEventListener> multicastDelegate;
};

}  // namespace kestrova
