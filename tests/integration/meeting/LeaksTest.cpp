#include <malloc.h>
#include <unistd.h>

#include "MeetingFixture.h"
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

namespace kestrova::test {
namespace {

struct Belongings {
  long descriptors = 0;
  long threads = 0;
  long residentKilobytes = 0;

  static Belongings now() {
    ::malloc_trim(0);
    const auto entries = [](const char* folder) {
      return std::distance(std::filesystem::directory_iterator(folder), {});
    };
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return {entries("/proc/self/fd"), entries("/proc/self/task"),
            pages * ::sysconf(_SC_PAGESIZE) / 1024};
  }
  /// The same once the last meeting, which goes down in the background, is gone.
  static Belongings settled() {
    auto last = now();
    for (int quiet = 0; quiet < 5;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      const auto next = now();
      const bool same = next.descriptors == last.descriptors && next.threads == last.threads;
      quiet = same ? quiet + 1 : 0;
      last = next;
    }
    return last;
  }
};

std::ostream& operator<<(std::ostream& out, const Belongings& all) {
  return out << all.descriptors << " descriptors, " << all.threads << " threads, "
             << all.residentKilobytes << " kB";
}

class LeaksTest : public MeetingFixture {};

TEST_F(LeaksTest, TwoHundredMeetingsLeaveNothingBehind) {
  // One heap for all threads: what stays free in those of ended threads is no leak.
  ::mallopt(M_ARENA_MAX, 1);
  const auto token = service.token();
  const auto comeAndGo = [&](int cycle, bool media) {
    auto options = person("ada", media);
    if (media) options = small(std::move(options), 660);
    const auto ada = Attendee::join(token, std::move(options));
    ASSERT_TRUE(ada->sees(media ? "own video" : "joined")) << ada->story();
    if (cycle % 3 == 0)
      ada->meeting.reset();
    else
      ada->leaveAndWait();
  };
  // The engine's own pools fill in the first meetings with media.
  for (int cycle = 0; cycle < 20 && !HasFatalFailure(); ++cycle) comeAndGo(cycle, cycle % 2 == 0);
  const auto before = Belongings::settled();
  for (int cycle = 0; cycle < 200 && !HasFatalFailure(); ++cycle) comeAndGo(cycle, cycle % 10 == 0);
  const auto after = Belongings::settled();
  std::cout << "    before: " << before << "; after: " << after << std::endl;
  EXPECT_LE(after.descriptors, before.descriptors * 105 / 100);
  EXPECT_LE(after.threads, before.threads * 105 / 100);
  EXPECT_LE(after.residentKilobytes, before.residentKilobytes * 105 / 100);
}

}  // namespace
}  // namespace kestrova::test
