#include <kestrova/realtime/RealtimeTrace.h>
#include <kestrova/session/MeetingRealtime.h>

#include <utility>

namespace kestrova {

std::shared_ptr<PubSub> MeetingRealtime::pubsub() {
  auto client = _context->roomClient();
  std::scoped_lock held(_pubsubLock);
  if (!_pubsub) _pubsub = std::make_shared<PubSub>(std::move(client), _meeting);
  return _pubsub;
}

std::shared_ptr<RealtimeStore> MeetingRealtime::realtimeStore() {
  auto client = _context->roomClient();
  std::scoped_lock held(_realtimeStoreLock);
  if (!_realtimeStore)
    _realtimeStore = std::make_shared<RealtimeStore>(std::move(client), _meeting);
  return _realtimeStore;
}

std::shared_ptr<PubSub> MeetingRealtime::existingPubsub() {
  std::scoped_lock held(_pubsubLock);
  return _pubsub;
}

std::shared_ptr<RealtimeStore> MeetingRealtime::existingStore() {
  std::scoped_lock held(_realtimeStoreLock);
  return _realtimeStore;
}

// Nobody can be waiting for either while the application hasn't asked for the object.
void MeetingRealtime::pubsubMessageReceived(const Dictionary& data) {
  if (const auto topics = existingPubsub())
    topics->onMessageReceived(PubSubMessage::fromJson(data));
}

void MeetingRealtime::handleRealtimeStoreValueChanged(const Dictionary& data) {
  const auto store = existingStore();
  const auto key = text(data, "key");
  const auto updatedBy = text(data, "updatedBy");
  if (store && key && updatedBy) store->onValueChanged(*key, text(data, "value"), *updatedBy);
}

void MeetingRealtime::joined() {
  if (const auto store = existingStore()) store->joinedAgain();
}

void MeetingRealtime::tearDownTopics() {
  if (const auto topics = existingPubsub()) topics->teardown();
}

void MeetingRealtime::forgetTopics() {
  if (const auto client = _context->existingRoomClient()) client->pubSubEndpointStore().clear();
  tearDownTopics();
}

void MeetingRealtime::resetForReconnect() {
  if (!existingPubsub()) return;
  traceRealtime("Router: resetForReconnect (meeting-level reconnect)");
  tearDownTopics();
}

}  // namespace kestrova
