#include <kestrova/signalling/RoomSpans.h>

#include <iterator>
#include <utility>

namespace kestrova {
namespace {

template <class Spans>
void endAll(const Spans& spans) {
  for (const auto& [key, span] : spans) SdkTracer::shared().endSpan(span);
}

void interrupt(const SpanScope& span, std::string_view message) {
  SdkTracer::shared().endSpan(span, {.success = false, .message = message});
}

}  // namespace

std::optional<SpanScope> RoomSpans::get(Slot slot) const {
  std::scoped_lock held(_tracingLock);
  const auto found = _slots.find(slot);
  if (found == _slots.end() || found->second.isTaken) return std::nullopt;
  return found->second.span;
}

int RoomSpans::set(Slot slot, SpanScope span) {
  std::map<Slot, Held>::node_type replaced;
  int number = 0;
  {
    std::scoped_lock held(_tracingLock);
    replaced = _slots.extract(slot);
    number = ++_lastNumber;
    _slots.emplace(slot, Held{std::move(span), number});
  }
  if (!replaced.empty() && !replaced.mapped().hasEnded)
    interrupt(replaced.mapped().span, "interrupted by another of its kind");
  return number;
}

void RoomSpans::finish(Slot slot, const EndSpanOptions& end) {
  finishIf(slot, std::nullopt, end);
}
void RoomSpans::finish(Slot slot, int number, const EndSpanOptions& end) {
  finishIf(slot, number, end);
}

void RoomSpans::finishIf(Slot slot, std::optional<int> number, const EndSpanOptions& end) {
  std::optional<SpanScope> finished;
  {
    std::scoped_lock held(_tracingLock);
    const auto found = _slots.find(slot);
    if (found == _slots.end() || (number && found->second.number != *number)) return;
    if (std::exchange(found->second.hasEnded, true)) return;
    finished = found->second.span;
  }
  SdkTracer::shared().endSpan(*finished, end);
}

std::optional<SpanScope> RoomSpans::take(Slot slot) {
  std::scoped_lock held(_tracingLock);
  const auto found = _slots.find(slot);
  if (found == _slots.end() || std::exchange(found->second.isTaken, true)) return std::nullopt;
  return found->second.span;
}

void RoomSpans::drop(Slot slot, int number) {
  std::scoped_lock held(_tracingLock);
  const auto found = _slots.find(slot);
  if (found != _slots.end() && found->second.number == number) _slots.erase(found);
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

void RoomSpans::keepPeers(const std::set<std::string>& participantIds) {
  Registry gone;
  {
    std::scoped_lock held(_tracingLock);
    for (auto peer = _peerSpans.begin(); peer != _peerSpans.end();) {
      const auto next = std::next(peer);
      if (!participantIds.contains(peer->first)) gone.insert(_peerSpans.extract(peer));
      peer = next;
    }
  }
  endAll(gone);
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
  std::map<Slot, Held> slots;
  {
    std::scoped_lock held(_tracingLock);
    slots.swap(_slots);
  }
  for (const auto& [slot, held] : slots) {
    if (held.hasEnded) continue;
    if (slot == Slot::leave)
      SdkTracer::shared().endSpan(held.span);
    else
      interrupt(held.span, "interrupted by the end of the meeting");
  }
}

}  // namespace kestrova
