#include <kestrova/tracing/Trace.h>

#include <gtest/gtest.h>
#include <tests/unit/tracing/RecordingOutput.h>

#include "DropFixture.h"
#include <algorithm>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

/// A meeting of a service that wants to know what goes wrong.
class MeetingLogTest : public testing::Test {
protected:
  static constexpr const char* endpoint = "https://logs.test/lines";

  MeetingLogTest() {
    drop.platform.session->answer(
        R"({"data":{"baseUrl":"signal.test","observability":{"jwt":"j","logs":{"enabled":true,)"
        R"("endPoint":"https://logs.test/lines"}}}})");
  }
  ~MeetingLogTest() override { SdkTracer::shared().clearBackendOutput(); }

  /// How many lines come of one more error.
  long linesOfAnError() {
    const auto count = [&] {
      const auto& requests = drop.platform.session->requests;
      return std::count_if(requests.begin(), requests.end(),
                           [](const auto& request) { return request.url == endpoint; });
    };
    drop.platform.pump();
    const auto before = count();
    traceError("It broke");
    drop.platform.pump();
    return count() - before;
  }

  Drop drop{{}};
};

TEST_F(MeetingLogTest, aStayIsLoggedUntilItsEndWhicheverWayItEnds) {
  EXPECT_EQ(linesOfAnError(), 0);
  drop.join();
  EXPECT_EQ(linesOfAnError(), 1);
  drop.test.meeting.reset();  // without leave()
  drop.platform.advance(5s);
  EXPECT_EQ(linesOfAnError(), 0) << "nothing more under the name of that stay";
}

TEST_F(MeetingLogTest, aMoveThatADropInterruptsIsLoggedUnderTheNewRoom) {
  drop.join();
  drop.service().withhold("join");
  drop.test.notify(
      "entryResponded",
      {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
  drop.dropAndReturn(2s);
  EXPECT_EQ(linesOfAnError(), 1);
  EXPECT_NE(drop.platform.session->requests.back().body.find(R"("roomId":"hall")"),
            std::string::npos);
}

TEST_F(MeetingLogTest, anEndLeavesTheLogOfAnotherMeetingAlone) {
  drop.join();
  const auto other =
      std::make_shared<RecordingOutput>(EventCategories{EventCategory::error}, false);
  SdkTracer::shared().setBackendOutput(other);
  drop.test.meeting->leave();
  drop.platform.advance(5s);
  drop.test.meeting.reset();
  drop.platform.advance(5s);
  linesOfAnError();
  EXPECT_TRUE(other->gotEvents());
}

}  // namespace
}  // namespace kestrova::test
