#pragma once

#include <kestrova/session/ParticipantEventListener.h>

#include <functional>
#include <memory>
#include <string>

namespace kestrova {

/// What a program wants to hear of a participant, as functions instead of a class. Each has the
/// name and the arguments of its operation in `ParticipantEventListener`, and is called on the main
/// queue. The names are given in this order.
struct ParticipantEvents {
  std::function<void(const std::shared_ptr<MediaStream>&, const std::shared_ptr<Participant>&)>
      onStreamEnabled = {};
  std::function<void(const std::shared_ptr<MediaStream>&, const std::shared_ptr<Participant>&)>
      onStreamDisabled = {};
  std::function<void(const std::shared_ptr<Participant>&, E2EEState,
                     const std::shared_ptr<MediaStream>&)>
      e2eeStateChanged = {};
  std::function<void(const std::string&, const std::string&)> onStreamPaused = {};
  std::function<void(const std::string&, const std::string&)> onStreamResumed = {};
  std::function<void(const std::string&, MediaType, bool)> onMediaStatusChanged = {};
  std::function<void(AgentState, const std::shared_ptr<Participant>&)> onAgentStateChanged = {};
  std::function<void(const TranscriptionSegment&, const std::shared_ptr<Participant>&)>
      onAgentTranscriptionReceived = {};
  std::function<void(const Dictionary&, const std::shared_ptr<Participant>&)> onAgentMetrics = {};
};

/// The listener that calls these functions.
std::shared_ptr<ParticipantEventListener> makeListener(ParticipantEvents events);

}  // namespace kestrova
