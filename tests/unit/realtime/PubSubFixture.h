#pragma once

#include <kestrova/realtime/PubSub.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrova::test {

/// Notes what it hears of a topic.
class TopicListener final : public PubSubMessageListener, public Heard {
public:
  void onMessageReceived(const PubSubMessage& message) override {
    hear("message " + message.message);
  }
  void onOldMessagesReceived(const std::vector<PubSubMessage>& messages,
                             const PubSubHistoryInfo& info) override {
    hear("old" + all(messages) + (info.isLast ? " last" : ""));
  }
  void onBatchReceived(const std::vector<PubSubMessage>& messages) override {
    hear("batch" + all(messages));
  }
  void onMessageDrop(const PubSubMessageDropInfo& info) override {
    hear("drop " + std::to_string(info.droppedCount));
  }
  void onReconnected() override { hear("reconnected"); }

private:
  static std::string all(const std::vector<PubSubMessage>& messages) {
    std::string line;
    for (const auto& message : messages) line += ' ' + message.message;
    return line;
  }
};

/// A meeting that was joined, the topic server as the test plays it, and one listener.
class PubSubTest : public testing::Test {
protected:
  /// Runs `task`: "ok", "waiting", or the error's text.
  std::shared_ptr<std::string> start(Task<void> task) {
    auto outcome = std::make_shared<std::string>("waiting");
    auto note = [](Task<void> inner, std::shared_ptr<std::string> result) -> Task<void> {
      try {
        co_await std::move(inner);
        *result = "ok";
      } catch (const std::exception& error) {
        *result = error.what();
      }
    };
    spawn(note(std::move(task), outcome));
    platform.pump();
    return outcome;
  }
  std::string run(Task<void> task) { return *start(std::move(task)); }
  std::shared_ptr<std::string> subscribe(const PubSub::Listener& who,
                                         PubSubSubscribeOptions options = {},
                                         const std::string& topic = "CHAT") {
    return start(pubsub->subscribe(topic, who, options));
  }
  std::string unsubscribe(const PubSub::Listener& who) {
    return run(pubsub->unsubscribe("CHAT", who));
  }
  void deliver(Bytes frame) {
    topics.deliver(std::move(frame));
    platform.pump();
  }
  void deliverLive(std::vector<TopicMessage> messages) {
    deliver(batchFrame({.topic = "CHAT", .messages = std::move(messages)}));
  }
  std::string requestIdOf(ClientFrame::Kind kind) { return topics.last(kind).requestId(); }
  const KestrovaError& error() { return test.listener->errors.back(); }
  void comeBack() {
    test.socket().open();
    platform.advance(std::chrono::milliseconds(100));
    test.decide("allowed");
  }

  TestPlatform platform;
  ScriptedTopics& topics = *platform.topics;
  TestMeeting test = TestMeeting::joined(platform, {.mode = Mode::SIGNALLING_ONLY});
  std::shared_ptr<PubSub> pubsub = test.meeting->pubsub();
  std::shared_ptr<TopicListener> listener = std::make_shared<TopicListener>();
};

}  // namespace kestrova::test
