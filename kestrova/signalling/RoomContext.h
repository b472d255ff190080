#pragma once

#include <kestrova/media/E2EEManager.h>
#include <kestrova/media/LocalSending.h>
#include <kestrova/model/MeetingData.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/FileUpload.h>
#include <kestrova/realtime/PubSubEndpointStore.h>
#include <kestrova/signalling/Connection.h>
#include <kestrova/signalling/RoomClientDelegate.h>
#include <kestrova/signalling/RoomSpans.h>
#include <kestrova/signalling/SocketRequestHandler.h>
#include <kestrova/tracing/KestrovaTelemetry.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova {

/// What a room client is made with.
struct RoomClientOptions {
  MeetingData meeting;
  std::shared_ptr<LocalSending> sending = std::make_shared<LocalSending>(Mode::SEND_AND_RECV);
  std::shared_ptr<Connections> connections = std::make_shared<Connections>();
  bool multiStream = true;
  PreferredProtocol preferredProtocol = PreferredProtocol::UDP_OVER_TCP;
  std::optional<std::string> signalingBaseUrl;
};

/// What the pieces of one room client share. Each piece keeps the state that it alone changes.
class RoomContext {
public:
  explicit RoomContext(RoomClientOptions roomOptions);

  const RoomClientOptions options;
  /// Shared with the meeting.
  const std::shared_ptr<LocalSending> sending;
  const std::shared_ptr<Connections> connections;
  const std::shared_ptr<const Platform> platform;
  /// Set by the join, before anything is asked of the service; nothing where nothing is encrypted.
  std::shared_ptr<E2EEManager> e2eeManager;
  const std::shared_ptr<SocketRequestHandler> socketRequestHandler;
  /// Serialises `joined`, the producers and the consumers. Never wait for it from within.
  const std::shared_ptr<SerialQueue> stateQueue;
  /// Starts a request, behind those that were started before. Any thread; returns at once.
  void inOrder(Task<void> request) const { spawnOn(*_requestQueue, std::move(request)); }
  /// Runs `work` on the socket's queue once those have been handed to it.
  void afterRequests(Work work) const;
  RoomSpans spans;
  PubSubEndpointStore pubSubEndpointStore;

  /// The meeting, if it is still there.
  std::shared_ptr<RoomClientDelegate> delegate() const;
  void setDelegate(std::weak_ptr<RoomClientDelegate> delegate);

  bool joined() const;
  void setJoined(bool joined);

  /// Nothing before the join has found out where files are kept.
  std::shared_ptr<const FileUpload> fileUpload() const;
  void setFileUpload(std::shared_ptr<const FileUpload> fileUpload);

  /// Nothing before the join has learnt where traces go.
  std::shared_ptr<KestrovaTelemetry> kestrovaOTEL() const;
  void setKestrovaOTEL(std::shared_ptr<KestrovaTelemetry> telemetry);
  /// Keeps the output for the service's log of this stay. \returns the one until now, or nothing
  std::shared_ptr<TraceOutput> exchangeBackendLog(std::shared_ptr<TraceOutput> output);

private:
  const std::shared_ptr<SerialQueue> _requestQueue;
  mutable std::mutex _lock;
  std::weak_ptr<RoomClientDelegate> _delegate;
  std::shared_ptr<const FileUpload> _fileUpload;
  std::shared_ptr<KestrovaTelemetry> _kestrovaOTEL;
  std::shared_ptr<TraceOutput> _backendLog;
  bool _joined = false;  // on stateQueue
};

/// Tells the application that what it asked for failed, unless the meeting is over by now.
void reportFailure(const RoomContext& context, const KestrovaError& error);

/// Runs `action(context, meeting)` on the main queue, if both are still there by then. What names a
/// participant goes this way, so that nothing overtakes the participant's arrival.
template <class Action>
void onMain(const std::shared_ptr<RoomContext>& context, Action action) {
  MainQueue::shared().async([weak = std::weak_ptr(context), action = std::move(action)]() mutable {
    const auto alive = weak.lock();
    const auto meeting = alive ? alive->delegate() : nullptr;
    if (meeting) action(*alive, *meeting);
  });
}

/// Takes streams away from whoever's they are.
void removeStreams(const std::shared_ptr<RoomContext>& context, std::vector<std::string> ids);

}  // namespace kestrova
