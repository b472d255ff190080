#pragma once

#include <kestrova/platform/Future.h>
#include <kestrova/realtime/PubSub.h>
#include <kestrova/realtime/RealtimeStore.h>

#include "Attendee.h"
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::test {

/// How an operation ended: "ok", what it gave, "nothing", or the words of its error.
std::string outcome(Task<void> task);
std::string outcome(Task<std::optional<std::string>> task);

/// Listens to topics and keys, and notes what it hears as lines.
class TopicEar final : public PubSubMessageListener, public RealtimeStoreEventListener {
public:
  /// Runs with each line as it is noted, on the main queue.
  std::function<void(const std::string& line)> onLine;

  void onMessageReceived(const PubSubMessage& message) override {
    note(message.senderId + ": " + message.message);
  }
  void onOldMessagesReceived(const std::vector<PubSubMessage>& messages,
                             const PubSubHistoryInfo& info) override {
    for (const auto& message : messages) note("old " + message.senderId + ": " + message.message);
    if (info.isLast) note("history ends");
  }
  void onMessageDrop(const PubSubMessageDropInfo& info) override {
    note("lost " + std::to_string(info.droppedCount));
  }
  void onReconnected() override { note("reconnected"); }
  void onValueChanged(const std::string& key, const std::optional<std::string>& value,
                      const std::string& updatedBy) override {
    note(key + " = " + value.value_or("nothing") + " by " + updatedBy);
  }

  /// Waits until exactly this line has been noted.
  bool hears(const std::string& line) const;
  std::vector<std::string> lines() const;
  int count(const std::string& line) const;

private:
  void note(const std::string& line);

  mutable std::mutex _lock;
  mutable std::condition_variable _changed;
  std::vector<std::string> _lines;
};

}  // namespace kestrova::test
