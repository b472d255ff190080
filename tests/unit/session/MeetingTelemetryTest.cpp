#include <kestrova/tracing/KestrovaTelemetry.h>

#include <gtest/gtest.h>
#include <tests/unit/tracing/Collector.h>
#include <tests/unit/tracing/Exported.h>
#include <tests/unit/tracing/RecordingOutput.h>

#include "DropFixture.h"
#include <algorithm>
#include <string>
#include <vector>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

const std::string endpoint = "https://traces.test/v1/traces";
const std::string rootName = "room_room_peer_me_sdk_iOS";
const std::string dropped = "ERROR: interrupted by the loss of the connection";

/// A meeting of a service that wants its traces.
class MeetingTelemetryTest : public testing::Test {
protected:
  MeetingTelemetryTest() { SdkTracer::shared().clearSpanHistory(); }
  ~MeetingTelemetryTest() override { letGo(); }

  Drop& begin(const std::string& traces = R"({"enabled":true,"pbEndPoint":")" + endpoint + R"("})",
              InitMeetingOptions options = {}) {
    drop.emplace(std::move(options));
    drop->platform.session->answer(
        R"({"data":{"baseUrl":"signal.test","observability":{"jwt":"j","traces":)" + traces +
        R"(,"metaData":{"userId":"u"}}}})");
    return *drop;
  }
  /// All of the meeting goes, and its pipeline.
  void letGo() {
    if (!drop) return;
    drop->test.meeting.reset();
    drop->platform.advance(1s);
    KestrovaTelemetry::make({.traces = {{"enabled", true}, {"pbEndPoint", endpoint}},
                             .platform = Collector::platform(std::make_shared<Collector>())});
    while (pipelineThreads() > 1) drop->platform.pump();
  }
  Exported finish() {
    letGo();
    std::vector<URLRequest> posts;
    for (const auto& request : drop->platform.session->requests)
      if (request.url == endpoint) posts.push_back(request);
    return Exported::of(posts);
  }

  std::optional<Drop> drop;
};

TEST_F(MeetingTelemetryTest, aMeetingExportsItsSpansAndItsSession) {
  auto& meeting = begin();
  meeting.join();
  meeting.test.meeting->leave();
  meeting.platform.advance(5s);
  const auto all = finish();
  const auto root = Exported::attributesOf(all.spans.at(rootName));
  EXPECT_EQ(root.at("sessionId"), "session");
  EXPECT_EQ(root.at("userId"), "u");
  EXPECT_EQ(all.scope, (Dictionary{{"name", "me"}}));
  EXPECT_EQ(all.parent("Joining the meeting"), all.id(rootName));
  EXPECT_EQ(all.parent("Requesting Entry"), all.id("Joining the meeting"));
  for (const auto* name :
       {"Initializing the meeting", "Joining the meeting", "Requesting Entry",
        "Entry response: ALLOWED", "Loading device capabilities", "Creating Send Media Transport",
        "Creating Receive Media Transport", "Leaving the meeting", "Closing resources"})
    EXPECT_EQ(all.status(name), "OK") << name;
}

TEST_F(MeetingTelemetryTest, anEntryWithoutASessionIsToldAsSuch) {
  auto& meeting = begin();
  meeting.enter();
  meeting.test.notify("entryResponded", {{"id", "me"}, {"decision", "allowed"}});
  meeting.test.decide("denied");
  const auto all = finish();
  EXPECT_EQ(Exported::attributesOf(all.spans.at(rootName)).at("sessionId"),
            "No Session ID available!");
  EXPECT_EQ(all.status("Requesting Entry"), "ERROR: denied");
  EXPECT_EQ(all.status("Joining the meeting"), "ERROR: interrupted by the end of the meeting");
}

TEST_F(MeetingTelemetryTest, aServiceThatWantsNoTracesGetsNone) {
  for (const auto* traces :
       {"7", "null", "[]", R"({"enabled":true})",
        R"({"enabled":"true","pbEndPoint":"https://traces.test/v1/traces"})"}) {
    auto& meeting = begin(traces);
    meeting.join();
    EXPECT_TRUE(meeting.test.listener->has("onMeetingJoined"));
    EXPECT_EQ(meeting.platform.session->requests.size(), 1U) << "the look-up";
    EXPECT_NE(KestrovaTelemetry::activeInstance(), nullptr);
    meeting.test.meeting.reset();
    meeting.platform.advance(5s);
    EXPECT_EQ(KestrovaTelemetry::activeInstance(), nullptr);
  }
}

TEST_F(MeetingTelemetryTest, noSecretLeavesTheMachineInASpan) {
  auto& meeting = begin(R"({"enabled":true,"pbEndPoint":")" + endpoint + R"("})",
                        {.signalingBaseUrl = "me:hidden-user@signal.test/api?key=hidden-base",
                         .secureKey = "hidden-secure-key"});
  meeting.join();
  meeting.test.meeting->leave();
  meeting.platform.advance(5s);
  const auto all = finish();
  EXPECT_EQ(Exported::attributesOf(all.spans.at("Initializing the meeting")).at("secureKey"),
            "[REDACTED]");
  EXPECT_EQ(Exported::attributesOf(all.spans.at("Joining the meeting")).at("signalingUrl"),
            "signal.test/api");
  for (const auto& request : drop->platform.session->requests) {
    if (request.url != endpoint) continue;
    EXPECT_EQ(request.body.find("hidden"), std::string::npos);
    EXPECT_EQ(request.body.find("secret-token"), std::string::npos);
  }
}

TEST_F(MeetingTelemetryTest, whoIsNotThereAfterAReturnHasASpanThatEnds) {
  auto& meeting = begin();
  meeting.join();
  for (const auto* id : {"bob", "eve"}) meeting.test.addPeer(id, {{"displayName", id}});
  const auto output =
      std::make_shared<RecordingOutput>(EventCategories{EventCategory::telemetry}, false);
  SdkTracer::shared().registerOutput(output);
  const auto stays = [&](const std::string& who) {
    const auto isEnd = [&](const auto& end) {
      return end.name == "Participant '" + who + "' joined the room";
    };
    return std::none_of(output->ends.begin(), output->ends.end(), isEnd);
  };
  meeting.service().answer("join", {{"peers", List{Dictionary{{"id", "eve"}}}}});
  meeting.dropAndComeBack(2s);
  EXPECT_FALSE(stays("bob"));
  EXPECT_TRUE(stays("eve"));
  SdkTracer::shared().removeOutput(output);
}

TEST_F(MeetingTelemetryTest, whatADropInterruptsDidNotSucceed) {
  struct Case {
    const char* request;
    const char* span;
  };
  for (const auto& [request, span] :
       {Case{"getRouterRtpCapabilities", "Loading device capabilities"},
        Case{"createWebRtcTransport", "Creating Send Media Transport"}}) {
    auto& meeting = begin();
    meeting.service().withhold(request);
    meeting.join();
    meeting.test.socket().drop();
    meeting.platform.pump();
    const auto all = finish();
    EXPECT_EQ(all.status(span), dropped);
    drop.reset();
  }
}

TEST_F(MeetingTelemetryTest, whatIsRefusedDidNotSucceed) {
  auto& meeting = begin();
  meeting.service().refuse("createWebRtcTransport");
  meeting.join();
  EXPECT_EQ(finish().status("Creating Send Media Transport"),
            "ERROR: the service gave no transport");
}

TEST_F(MeetingTelemetryTest, aRefusedEntryEndsTheJoinAsFailed) {
  auto& meeting = begin();
  meeting.service().refuse("requestEntry", 4001, "full");
  meeting.enter();
  const auto all = finish();
  EXPECT_TRUE(all.status("Requesting Entry").starts_with("ERROR: "));
  EXPECT_TRUE(all.status("Joining the meeting").starts_with("ERROR: "));
}

TEST_F(MeetingTelemetryTest, aMoveThatAnotherSupersedesDidNotSucceed) {
  auto& meeting = begin();
  meeting.join();
  meeting.service().withhold("join");
  const auto move = [&](const char* room) {
    meeting.test.notify(
        "entryResponded",
        {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", room}});
  };
  move("hall");
  move("yard");
  meeting.service().answerLate("join", ScriptedService::ok());
  meeting.platform.pump();
  meeting.test.socket().drop();
  meeting.platform.pump();
  const auto all = finish();
  for (const auto* name : {"Switching room", "Requesting to join switched room"})
    EXPECT_EQ(all.status(name), "ERROR: interrupted by another move, " + dropped);
}

TEST_F(MeetingTelemetryTest, aCameraThatIsSentHasASpanThatSucceeded) {
  auto& meeting =
      begin(R"({"enabled":true,"pbEndPoint":")" + endpoint + R"("})", {.webcamEnabled = true});
  meeting.join();
  EXPECT_EQ(finish().status("Starting Video Stream transmission"), "OK");
}

TEST_F(MeetingTelemetryTest, aMicrophoneThatDoesNotStartIsNoSuccess) {
  auto& meeting =
      begin(R"({"enabled":true,"pbEndPoint":")" + endpoint + R"("})", {.micEnabled = true});
  meeting.service().withhold("produce");
  meeting.join();
  meeting.test.socket().drop();
  meeting.platform.pump();
  const auto all = finish();
  EXPECT_EQ(all.status("Enabling Microphone without Custom Audio Track"), dropped);
  EXPECT_EQ(all.status("Starting Audio Stream transmission"), "ERROR: not published");
}

}  // namespace
}  // namespace kestrova::test
