#pragma once

#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Values.h>
#include <kestrova/signalling/Connection.h>
#include <kestrova/signalling/Delegates.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova {

/// The one object that talks to the signalling server: it carries dictionaries and knows nothing of
/// media or of participants.
///
/// Every operation becomes one acknowledged Socket.IO event "request"; every push becomes a call on
/// a delegate. All emits and all incoming events of one handler run on `socketEmitQueue`, so they
/// are strictly serialised. There is no retry and no queue of requests across a drop: a request
/// belongs to one connection and ends with it. This object is what counts the connections.
/// Operations may be called from any thread.
class SocketRequestHandler : public std::enable_shared_from_this<SocketRequestHandler> {
public:
  using AnswerHandler = std::function<void(const Dictionary&)>;

  /// How long a request waits for its acknowledgement.
  static constexpr std::chrono::milliseconds acknowledgementTimeout{20'000};
  /// The server needs a moment after "connectionSuccess" before it takes the entry request.
  static constexpr std::chrono::milliseconds connectionSettleDelay{100};

  SocketRequestHandler(MeetingData meeting, std::shared_ptr<Connections> connections);
  ~SocketRequestHandler();

  void setDelegates(std::weak_ptr<RemoteEventDelegate> remoteEvents,
                    std::weak_ptr<SocketEventDelegate> socketEvents,
                    std::weak_ptr<MeetingStateDelegate> meetingState);

  /// Does nothing while the socket is connecting or connected.
  /// \returns false when `url` is none
  bool connect(const std::string& url, const std::string& socketPath, SpanScope joinSpan);
  /// Closes the connection for good; `reason` is what `socketDisconnected` will tell.
  /// \param goodbye held until the server has been told
  void disconnect(LeaveReason reason, std::shared_ptr<void> goodbye = {});
  /// From now on everything names another meeting: the envelope, the join, and the parameters with
  /// which a lost connection is made anew.
  /// \param token access to it; the present one without it
  void moveTo(const std::string& meetingId, const std::optional<std::string>& token);

  /// The meeting that everything names.
  std::string meetingId() const { return meeting().id; }
  /// Access to it.
  std::string accessToken() const { return meeting().accessToken; }

  /// The answer as the service gave it: empty when the request could not be sent, or with the one
  /// key "ACK_STATUS" when no answer came in time, or when the connection went. Never fails.
  /// \param connection to which the request belongs: it is not sent on any other; the present one
  ///   without it
  /// \param onArrival sees the answer first, on `socketEmitQueue`, before the next event is
  /// handled.
  ///   The empty answer of a request that can't travel as JSON it sees where it was made.
  Task<Dictionary> prepareAndSendRequest(LocalEvent event, Dictionary data = {},
                                         std::optional<Connection> connection = {},
                                         AnswerHandler onArrival = {});
  /// Nothing when the request cannot travel as JSON.
  std::optional<Dictionary> makeRequestEnvelope(LocalEvent event, Dictionary data) const;

  /// Runs `work` on `socketEmitQueue`, behind what was handed to it before.
  void afterEmits(Work work) { _socketEmitQueue->async(std::move(work)); }
  /// Told without waiting for an answer, and only while the socket is connected.
  void definePeerLeftReason(const std::string& leaveReason);
  /// Asks the service to end the meeting for all.
  Task<Dictionary> closeRoom(std::optional<LeaveReason> leaveReason);
  Task<Dictionary> createWebRTCTransport(PreferredProtocol protocol, bool producing, bool consuming,
                                         Connection connection);
  Task<Dictionary> connectWebRTCTransport(std::string transportId, Dictionary dtlsParameters,
                                          Connection connection);
  Task<Dictionary> joinRoom(Dictionary rtpCapabilities, bool switchingRoom, Mode mode,
                            bool batchingEnabled, Connection connection, AnswerHandler onArrival);
  Task<Dictionary> changeMode(Mode mode, Connection connection);
  /// \param value nothing clears the key
  Task<Dictionary> realtimeStoreSetValue(std::string key, std::optional<std::string> value);
  Task<Dictionary> respondEntry(std::string peerId, std::string decision);

private:
  void handleSocketEvents(const std::shared_ptr<SocketIOClient>& socket, SpanScope joinSpan);
  void onConnectionSuccess(const SpanScope& joinSpan);
  void onDisconnect();
  void onReconnect();
  bool isLeaveUnreported() const;
  void onClientError(const SocketItems& items);
  void onBatch(const SocketItems& items, const std::shared_ptr<SocketAckEmitter>& ack);
  void handleServerEvent(const SocketItems& items, const std::shared_ptr<SocketAckEmitter>& ack);
  void reportState(MeetingState state, std::optional<Connection> connection = {});
  SocketManagerConfig makeConfig(const std::string& socketPath) const;
  std::vector<std::pair<std::string, std::string>> connectParams() const;
  MeetingData meeting() const;
  std::shared_ptr<SocketIOClient> socket() const;

  const std::shared_ptr<Connections> _connections;
  const std::shared_ptr<const Platform> _platform;
  const std::shared_ptr<SerialQueue> _socketEmitQueue;

  std::weak_ptr<RemoteEventDelegate> _remoteEventDelegate;
  std::weak_ptr<SocketEventDelegate> _socketEventDelegate;
  std::weak_ptr<MeetingStateDelegate> _meetingStateDelegate;

  // A leaf lock: held for the read or write of a field, never across a call.
  mutable std::mutex _stateLock;
  MeetingData _meeting;
  std::shared_ptr<SocketManager> _socketManager;
  std::shared_ptr<SocketIOClient> _socket;
  std::optional<LeaveReason> _intentionalLeaveReason;
  bool _wasReconnecting = false;
  bool _endReported = false;
};

}  // namespace kestrova
