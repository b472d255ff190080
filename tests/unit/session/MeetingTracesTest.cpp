#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;

/// What the default console gets to see of a meeting.
class MeetingTracesTest : public testing::Test {
protected:
  ~MeetingTracesTest() override {
    Kestrova::setLogLevel(LogLevel::none);
    Kestrova::setLogHandler(nullptr);
  }

  void listen(LogLevel level) {
    Kestrova::setLogHandler([this](const LogLine& line) { lines.emplace_back(line.text); });
    Kestrova::setLogLevel(level);
    lines.clear();
  }

  TestPlatform platform;
  std::vector<std::string> lines;
};

TEST_F(MeetingTracesTest, aConsoleTellsWhatIsDoneAndNotEachStep) {
  for (const auto level : {LogLevel::info, LogLevel::all}) {
    SCOPED_TRACE(text(level));
    listen(level);
    auto test = TestMeeting::joined(platform, {.micEnabled = true, .webcamEnabled = true});
    test.addPeer("bob");
    test.meeting->leave();
    platform.pump();
    EXPECT_THAT(lines, Contains("▶ Joining the meeting"));
    EXPECT_THAT(lines, Contains("▶ Participant 'bob' joined the room"));
    EXPECT_TRUE(platform.traces.has("Meeting State: CONNECTED"));
    EXPECT_THAT(lines, Not(Contains("Meeting State: CONNECTED")));
    if (level == LogLevel::info) {
      EXPECT_THAT(lines, Each(AnyOf(StartsWith("▶ "), StartsWith("◀ "))));
    }
  }
}

TEST_F(MeetingTracesTest, onlyADenialOfOurOwnIsAnError) {
  auto test = TestMeeting::entering(platform);
  listen(LogLevel::error);
  test.decide("allowed", "bob");
  EXPECT_THAT(lines, ElementsAre());
  test.decide("denied");
  EXPECT_THAT(lines, ElementsAre("Join Request Denied"));
}

}  // namespace
}  // namespace kestrova::test
