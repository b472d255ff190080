#include "RelayWatch.h"

#include <kestrova/platform/Values.h>

namespace kestrova::meet {

void RelayWatch::onMediaRelayRequestReceived(const std::string& participantId,
                                             const std::string& meetingId,
                                             const std::string& displayName, Action accept,
                                             Action) {
  _watcher.note("mediaRelayRequestReceived",
                {{"participantId", participantId},
                 {"displayName", displayName},
                 {"meeting", meetingId},
                 {"accepted", _accepts}},
                displayName + " asks to show the meeting " + meetingId + " here" +
                    (_accepts ? ": accepted" : ""));
  if (_accepts) accept();
}

void RelayWatch::onMediaRelayRequestResponse(const std::string& decision,
                                             const std::string& decidedBy,
                                             const std::string& meetingId) {
  _watcher.note("mediaRelayResponse",
                {{"decision", decision}, {"decidedBy", decidedBy}, {"meeting", meetingId}},
                "the relay to " + meetingId + " was " + decision);
}

void RelayWatch::onMediaRelayStarted(const std::string& meetingId) {
  _watcher.note("mediaRelayStarted", {{"meeting", meetingId}}, "relay with " + meetingId);
}

void RelayWatch::onMediaRelayStopped(const std::string& meetingId) {
  _watcher.note("mediaRelayStopped", {{"meeting", meetingId}},
                "the relay with " + meetingId + " ended");
}

void RelayWatch::onMediaRelayError(const std::string& meetingId, const std::string& error) {
  _watcher.note("mediaRelayError", {{"meeting", meetingId}, {"message", error}},
                "the relay with " + meetingId + " failed: " + error);
}

}  // namespace kestrova::meet
