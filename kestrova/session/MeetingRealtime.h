#pragma once

#include <kestrova/realtime/PubSub.h>
#include <kestrova/realtime/RealtimeMeeting.h>
#include <kestrova/realtime/RealtimeStore.h>
#include <kestrova/session/MeetingContext.h>

#include <memory>
#include <mutex>

namespace kestrova {

/// A meeting's topic messages and its store, each made when it is first asked for. Any thread.
class MeetingRealtime {
public:
  explicit MeetingRealtime(std::shared_ptr<MeetingContext> context)
      : _context(std::move(context)) {}

  /// Set once, before the meeting is used.
  void setMeeting(std::weak_ptr<RealtimeMeeting> meeting) { _meeting = std::move(meeting); }

  std::shared_ptr<PubSub> pubsub();
  std::shared_ptr<RealtimeStore> realtimeStore();

  void pubsubMessageReceived(const Dictionary& data);
  void handleRealtimeStoreValueChanged(const Dictionary& data);
  /// The meeting has been joined, for the first time or again, or another one has.
  void joined();
  /// The meeting ends: topics and where they were served are forgotten.
  void forgetTopics();
  /// The topics go, and are served again where they were.
  void tearDownTopics();
  /// The connection was lost: whoever wants to listen on subscribes again.
  void resetForReconnect();

private:
  std::shared_ptr<PubSub> existingPubsub();
  std::shared_ptr<RealtimeStore> existingStore();

  const std::shared_ptr<MeetingContext> _context;
  std::weak_ptr<RealtimeMeeting> _meeting;

  std::mutex _pubsubLock;
  std::shared_ptr<PubSub> _pubsub;
  std::mutex _realtimeStoreLock;
  std::shared_ptr<RealtimeStore> _realtimeStore;
};

}  // namespace kestrova
