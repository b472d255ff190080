#include <boost/json/serialize.hpp>

#include "MeetingFixture.h"
#include <thread>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

/// What reaches the service's log and trace back ends.
class ReportsTest : public MeetingFixture {
protected:
  static constexpr double tone = 610;

  Dictionary ask(const char* sink) { return service.control(sink, {{"roomId", "integration"}}); }

  /// Asks again until the sink has something like that; whoever reports does so in its own time.
  template <class Wanted>
  bool arrives(const char* sink, const char* key, Wanted wanted) {
    const auto limit = std::chrono::steady_clock::now() + Attendee::patience;
    while (std::chrono::steady_clock::now() < limit) {
      _answer = ask(sink);
      if (const auto* found = list(_answer, key))
        for (const auto& entry : *found)
          if (wanted(asDictionary(entry))) return true;
      std::this_thread::sleep_for(200ms);
    }
    return false;
  }
  const Dictionary& answer() const { return _answer; }

private:
  Dictionary _answer;
};

auto named(std::string name) {
  return [name = std::move(name)](const Dictionary& entry) {
    return text(entry, "name") == name ||
           text(entry, "logText", "").find(name) != std::string::npos;
  };
}

TEST_F(ReportsTest, StepsReachTheTraceBackEndBelowOneRoot) {
  const auto token = service.token();
  const auto ada = joinSmall("ada", tone);
  ASSERT_TRUE(arrives("traces", "spans", named("Requesting Entry"))) << ada->story();
  ASSERT_TRUE(arrives("traces", "spans", named("room_integration_peer_ada_sdk_iOS")));
  std::map<std::string, const Dictionary*> spans;
  for (const auto& span : *list(answer(), "spans"))
    spans[text(asDictionary(span), "spanId", "")] = &asDictionary(span);
  int roots = 0;
  for (const auto& [id, span] : spans) {
    EXPECT_NE(text(*dictionary(*span, "status"), "code"), "error") << text(*span, "name", "");
    roots += text(*span, "parentSpanId", "").empty();
  }
  EXPECT_EQ(roots, 1);
  for (const auto& request : *list(answer(), "requests")) {
    EXPECT_EQ(text(asDictionary(request), "authorization"), "ok");
    EXPECT_EQ(text(asDictionary(request), "contentType"), "application/x-protobuf");
  }
  EXPECT_EQ(boost::json::serialize(answer()).find(token), std::string::npos);

  ada->leaveAndWait();
  EXPECT_TRUE(arrives("traces", "spans", named("Leaving the meeting"))) << "also the last steps";
}

TEST_F(ReportsTest, WhatGoesWrongReachesTheLog) {
  const auto ada = joinSmall("ada", tone);
  ada->meeting->unmuteMic();  // it is on
  ASSERT_TRUE(arrives("logs", "logs", named("Microphone is already enabled.")));
  for (const auto& entry : *list(answer(), "logs")) {
    const auto& line = asDictionary(entry);
    const auto* attributes = dictionary(line, "attributes");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(text(*attributes, "SDK"), "iOS");
    EXPECT_EQ(text(*attributes, "peerId"), "ada");
    EXPECT_EQ(text(*attributes, "roomId"), "integration");
  }
}

TEST_F(ReportsTest, BackEndsThatHangHoldNobodyUp) {
  for (const char* sink : {"logs", "traces"})
    service.control("hangSink", {{"sink", sink}, {"early", true}, {"count", 1000}});
  auto ada = joinSmall("ada", tone);
  const auto grace = joinSmall("grace", tone);
  for (int i = 0; i < 100; ++i) ada->meeting->unmuteMic();
  EXPECT_TRUE(grace->getsMedia(tone)) << grace->story();
  const auto begin = std::chrono::steady_clock::now();
  ada->leaveAndWait();
  grace->leaveAndWait();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
}

}  // namespace
}  // namespace kestrova::test
