#include <kestrova/platform/Farewells.h>
#include <kestrova/session/JoinedMeetings.h>
#include <kestrova/session/MeetingLifecycle.h>

#include <utility>

namespace kestrova {

JoinedMeetings& JoinedMeetings::shared() {
  static auto& instance = *new JoinedMeetings;
  return instance;
}

void JoinedMeetings::add(std::weak_ptr<MeetingLifecycle> meeting) {
  Farewells::guardExit([] { shared().abandonAll(); });
  std::scoped_lock held(_lock);
  std::erase_if(_meetings, [](const auto& each) { return each.expired(); });
  _meetings.push_back(std::move(meeting));
}

void JoinedMeetings::abandonAll() {
  std::vector<std::weak_ptr<MeetingLifecycle>> meetings;
  {
    std::scoped_lock held(_lock);
    meetings.swap(_meetings);
  }
  for (const auto& each : meetings)
    if (const auto meeting = each.lock()) meeting->abandon();
}

}  // namespace kestrova
