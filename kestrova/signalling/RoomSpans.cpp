#include <kestrova/signalling/RoomSpans.h>

#include <utility>

namespace kestrova {
namespace {

template <class Spans>
void endAll(const Spans& spans) {
  for (const auto& [key, span] : spans) SdkTracer::shared().endSpan(span);
}

}  // namespace

std::optional<SpanScope> RoomSpans::get(Slot slot) const {
  std::scoped_lock held(_tracingLock);
  const auto found = _slots.find(slot);
  return found == _slots.end() ? std::nullopt : std::optional(found->second);
}

void RoomSpans::set(Slot slot, SpanScope span) {
  auto replaced = take(slot);
  if (replaced) SdkTracer::shared().endSpan(*replaced);
  std::scoped_lock held(_tracingLock);
  _slots.insert_or_assign(slot, std::move(span));
}

std::optional<SpanScope> RoomSpans::take(Slot slot) {
  std::scoped_lock held(_tracingLock);
  auto node = _slots.extract(slot);
  return node.empty() ? std::nullopt : std::optional(std::move(node.mapped()));
}

std::optional<SpanScope> RoomSpans::find(const Registry& registry, const std::string& id) const {
  std::scoped_lock held(_tracingLock);
  const auto found = registry.find(id);
  return found == registry.end() ? std::nullopt : std::optional(found->second);
}

void RoomSpans::end(Registry& registry, const std::string& id) {
  Registry::node_type node;
  {
    std::scoped_lock held(_tracingLock);
    node = registry.extract(id);
  }
  if (!node.empty()) SdkTracer::shared().endSpan(node.mapped());
}

void RoomSpans::setPeer(const std::string& participantId, SpanScope span) {
  endPeer(participantId);
  std::scoped_lock held(_tracingLock);
  _peerSpans.insert_or_assign(participantId, std::move(span));
}
std::optional<SpanScope> RoomSpans::peer(const std::string& participantId) const {
  return find(_peerSpans, participantId);
}
void RoomSpans::endPeer(const std::string& participantId) {
  end(_peerSpans, participantId);
}

void RoomSpans::setConsumer(const std::string& consumerId, SpanScope span) {
  endConsumer(consumerId);
  std::scoped_lock held(_tracingLock);
  _consumerSpans.insert_or_assign(consumerId, std::move(span));
}
std::optional<SpanScope> RoomSpans::consumer(const std::string& consumerId) const {
  return find(_consumerSpans, consumerId);
}
void RoomSpans::endConsumer(const std::string& consumerId) {
  end(_consumerSpans, consumerId);
}

void RoomSpans::endPeersAndConsumers() {
  Registry peers;
  Registry consumers;
  {
    std::scoped_lock held(_tracingLock);
    peers.swap(_peerSpans);
    consumers.swap(_consumerSpans);
  }
  endAll(consumers);
  endAll(peers);
}

void RoomSpans::clear() {
  endPeersAndConsumers();
  std::map<Slot, SpanScope> slots;
  {
    std::scoped_lock held(_tracingLock);
    slots.swap(_slots);
  }
  endAll(slots);
}

}  // namespace kestrova
