#pragma once

#include <kestrova/tracing/Trace.h>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace kestrova {

/// The spans of the running meeting, under which its events are told. Thread-safe; the lock is held
/// only while a span is copied in or out.
class RoomSpans {
public:
  enum class Slot { join, requestEntry, current, leave, producerTransport, consumerTransport };

  std::optional<SpanScope> get(Slot slot) const;
  /// A span that was there and has not ended is interrupted.
  /// \returns the number by which the others know the new one
  int set(Slot slot, SpanScope span);
  /// Ends the slot's span, once. It stays in its slot, as parent of what is told later.
  void finish(Slot slot, const EndSpanOptions& end = {});
  /// The same, unless another took its place.
  void finish(Slot slot, int number, const EndSpanOptions& end = {});
  /// Gives what is in the slot, and no more from then on; whoever set it still ends and drops it.
  std::optional<SpanScope> take(Slot slot);
  /// Empties the slot, unless another is in it.
  void drop(Slot slot, int number);

  void setPeer(const std::string& participantId, SpanScope span);
  std::optional<SpanScope> peer(const std::string& participantId) const;
  void endPeer(const std::string& participantId);
  /// Ends those of all others.
  void keepPeers(const std::set<std::string>& participantIds);
  void setConsumer(const std::string& consumerId, SpanScope span);
  std::optional<SpanScope> consumer(const std::string& consumerId) const;
  void endConsumer(const std::string& consumerId);
  void endPeersAndConsumers();

  /// Ends and forgets everything: the meeting is over. What was still to come of a slot's span is
  /// interrupted.
  void clear();

private:
  struct Held {
    SpanScope span;
    int number = 0;
    bool hasEnded = false;
    bool isTaken = false;
  };
  using Registry = std::map<std::string, SpanScope>;
  std::optional<SpanScope> find(const Registry& registry, const std::string& id) const;
  void end(Registry& registry, const std::string& id);
  void finishIf(Slot slot, std::optional<int> number, const EndSpanOptions& end);

  mutable std::mutex _tracingLock;
  std::map<Slot, Held> _slots;
  int _lastNumber = 0;
  Registry _peerSpans;
  Registry _consumerSpans;
};

}  // namespace kestrova
