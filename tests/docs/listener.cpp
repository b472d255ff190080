#include <kestrova/kestrova.h>

using namespace kestrova;

struct Host : MeetingEventListener {
  void onMeetingLeft(LeaveReason) override {}  // one form of two
};
struct Guest : MeetingEventListener, std::enable_shared_from_this<Guest> {
  void meet(Meeting& meeting) { meeting.addEventListener(shared_from_this()); }
};

void meet(Meeting& meeting) {
#ifdef KEPT_YES
  const auto host = std::make_shared<Host>();
  meeting.addEventListener(host);
  std::make_shared<Guest>()->meet(meeting);
  static const auto handle = meeting.listen(std::make_shared<Host>());
#else
  meeting.addEventListener(std::make_shared<Host>());
  meeting.listen(std::make_shared<Host>());
#endif
}
