#include "LibraryCrowd.h"

#include <kestrova/platform/Future.h>
#include <kestrova/platform/Queue.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <utility>

namespace kestrova::bench {
namespace {

constexpr auto kPatience = std::chrono::seconds(30);

class Stay final : public MeetingEventListener {
public:
  void onMeetingJoined(const std::optional<std::string>&) override { joined.set_value(); }
  void onMeetingLeft() override { left.set_value(); }
  std::promise<void> joined, left;
};

}  // namespace

std::shared_ptr<Meeting> join(const test::LocalService& service, const std::string& meetingId,
                              const std::string& participantId) {
  const auto stay = std::make_shared<Stay>();
  auto meeting = Kestrova::initMeeting({.meetingId = meetingId,
                                        .participantId = participantId,
                                        .signalingBaseUrl = service.address()});
  meeting->addEventListener(stay);
  meeting->join();
  if (stay->joined.get_future().wait_for(kPatience) != std::future_status::ready)
    throw std::runtime_error("a join did not come through");
  return meeting;
}

void leave(const std::shared_ptr<Meeting>& meeting) {
  const auto stay = std::make_shared<Stay>();
  meeting->addEventListener(stay);
  meeting->leave();
  stay->left.get_future().wait_for(kPatience);
}

LibraryCrowd::LibraryCrowd(const test::LocalService& service, const std::string& meetingId,
                           const std::string& topicUrl) {
  if (!topicUrl.empty())
    service.control("setPubSubUrl",
                    {{"roomId", meetingId}, {"url", topicUrl}, {"count", kListeners + 1}});
  for (int i = 0; i <= kListeners; ++i) {
    _meetings.push_back(join(service, meetingId, std::to_string(i)));
    if (i == 0) continue;
    auto& listener = _listener[i - 1];
    listener = makeListener(PubSubMessageEvents{.onMessageReceived = [this](const auto& message) {
      _events.delivered(numberOf(message.message.data()));
    }});
    asFuture(_meetings.back()->pubsub()->subscribe(kTopic, listener, {.oldMessageLimit = 0})).get();
  }
  _publisher = _meetings.front()->pubsub();
}

LibraryCrowd::~LibraryCrowd() {
  for (const auto& meeting : _meetings) leave(meeting);
}

Task<void> LibraryCrowd::send(std::string text) {
  auto publishing = _publisher->publish(kTopic, std::move(text));
  co_await std::move(publishing);
  _events.acknowledged();
}

void LibraryCrowd::publish(std::uint32_t number) {
  spawn(send(textOf(number)));
}

}  // namespace kestrova::bench
