#include <kestrova/realtime/PubSubMessageListener.h>

#include <utility>

namespace kestrova {
namespace {

class TopicFunctionListener final : public PubSubMessageListener {
public:
  explicit TopicFunctionListener(PubSubMessageEvents events) : _events(std::move(events)) {}

  void onMessageReceived(const PubSubMessage& message) override {
    if (_events.onMessageReceived) _events.onMessageReceived(message);
  }
  void onOldMessagesReceived(const std::vector<PubSubMessage>& messages,
                             const PubSubHistoryInfo& info) override {
    if (_events.onOldMessagesReceived) _events.onOldMessagesReceived(messages, info);
  }
  void onBatchReceived(const std::vector<PubSubMessage>& messages) override {
    if (_events.onBatchReceived) _events.onBatchReceived(messages);
  }
  void onMessageDrop(const PubSubMessageDropInfo& info) override {
    if (_events.onMessageDrop) _events.onMessageDrop(info);
  }
  void onReconnected() override {
    if (_events.onReconnected) _events.onReconnected();
  }

private:
  const PubSubMessageEvents _events;
};

}  // namespace

std::shared_ptr<PubSubMessageListener> makeListener(PubSubMessageEvents events) {
  return std::make_shared<TopicFunctionListener>(std::move(events));
}

}  // namespace kestrova
