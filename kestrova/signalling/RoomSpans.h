#pragma once

#include <kestrova/tracing/Trace.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// The spans of the running meeting, under which its events are told. Thread-safe; the lock is held
/// only while a span is copied in or out.
class RoomSpans {
public:
  enum class Slot { join, requestEntry, current, leave, producerTransport, consumerTransport };

  std::optional<SpanScope> get(Slot slot) const;
  /// Ends the span that was there.
  void set(Slot slot, SpanScope span);
  /// Empties the slot and gives what was in it.
  std::optional<SpanScope> take(Slot slot);

  void setPeer(const std::string& participantId, SpanScope span);
  std::optional<SpanScope> peer(const std::string& participantId) const;
  void endPeer(const std::string& participantId);
  void setConsumer(const std::string& consumerId, SpanScope span);
  std::optional<SpanScope> consumer(const std::string& consumerId) const;
  void endConsumer(const std::string& consumerId);
  void endPeersAndConsumers();

  /// Ends and forgets everything: the meeting is over.
  void clear();

private:
  using Registry = std::map<std::string, SpanScope>;
  std::optional<SpanScope> find(const Registry& registry, const std::string& id) const;
  void end(Registry& registry, const std::string& id);

  mutable std::mutex _tracingLock;
  std::map<Slot, SpanScope> _slots;
  Registry _peerSpans;
  Registry _consumerSpans;
};

}  // namespace kestrova
