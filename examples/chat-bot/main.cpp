// chat-bot SERVICE MEETING, with the access token in KESTROVA_TOKEN: knows what is said in the
// topic CHAT, before it came, too, and says the last N messages again on "!history N".
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSub.h>

#include "support/Stay.h"
#include "support/Work.h"
#include <algorithm>
#include <cstdlib>

using namespace kestrova;

struct Bot : MeetingEventListener, PubSubMessageListener, std::enable_shared_from_this<Bot> {
  std::shared_ptr<PubSub> topics;
  std::vector<std::string> said;

  void onMeetingJoined(const std::optional<std::string>&) override {
    said.clear();  // a lost connection ended the subscription, and the history has it all
    work::attempt(topics->subscribe("CHAT", shared_from_this()), "not subscribed");
  }
  void onOldMessagesReceived(const std::vector<PubSubMessage>& old,
                             const PubSubHistoryInfo& info) override {
    for (const auto& message : old) remember(message);
    if (info.isLast) say("I know " + std::to_string(said.size()) + " messages");
  }
  void onMessageReceived(const PubSubMessage& message) override {
    remember(message);
    if (!message.message.starts_with("!history ")) return;
    const auto asked = std::strtoul(message.message.c_str() + 9, nullptr, 10);
    for (auto i = said.size() - std::min(asked, said.size()); i < said.size(); ++i) say(said[i]);
  }
  void onError(const KestrovaError& error) override { std::puts(text(error).c_str()); }
  void remember(const PubSubMessage& message) {
    if (message.payload.contains("bot") || message.message.starts_with("!")) return;
    said.push_back(message.senderName + ": " + message.message);
  }
  void say(const std::string& line) {
    work::attempt(topics->publish("CHAT", line, {}, {{"bot", true}}), "not said");
  }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 3 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... chat-bot SERVICE MEETING\n", stderr), 2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  const auto bot = std::make_shared<Bot>();
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Chat bot",
                                        .mode = Mode::SIGNALLING_ONLY,
                                        .signalingBaseUrl = argv[1]});
  bot->topics = meeting->pubsub();
  meeting->addEventListener(bot);
  return stay(loop, std::move(meeting));
}
