#pragma once

#include <kestrova/model/MeetingData.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/platform/Task.h>
#include <kestrova/platform/Values.h>
#include <kestrova/signalling/Connection.h>
#include <kestrova/signalling/Events.h>
#include <kestrova/tracing/SpanScope.h>

#include <string>

namespace kestrova {

/// What the service pushes. Called on `socketEmitQueue`, in the order of arrival.
class RemoteEventDelegate {
public:
  virtual ~RemoteEventDelegate() = default;
  /// \param response the whole notification, with "method" and "data"
  virtual void handleRemoteEvent(RemoteEvent event, const Dictionary& response) = 0;
  /// \throws std::exception when no consumer could be made; the service is then left unanswered
  virtual void handleNewConsumer(const Dictionary& response) = 0;
  /// The answer to the service's "statsData".
  virtual Dictionary getStatsData() = 0;
};

/// How the connection fares. `socketConnected` runs on the main queue, the rest on any thread.
class SocketEventDelegate {
public:
  virtual ~SocketEventDelegate() = default;
  /// \returns whether the service took the entry request
  virtual Task<bool> socketConnected(SpanScope joinSpan, Connection connection) = 0;
  virtual Task<void> socketDisconnected(LeaveReason reason) = 0;
  virtual void socketError(const std::string& message) = 0;
};

class MeetingStateDelegate {
public:
  virtual ~MeetingStateDelegate() = default;
  /// Any thread, but for RECONNECTING: on `socketEmitQueue`, before the next connection's events.
  /// \param connection of which it is said; a state that it reached is nothing once it is over
  virtual void meetingStateChanged(MeetingState state, Connection connection) = 0;
};

}  // namespace kestrova
