#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class ReconnectTest : public testing::Test {
protected:
  ScriptedService& service() { return *platform.service; }
  Value peers(std::initializer_list<const char*> ids) {
    List list;
    for (const auto* id : ids) list.push_back(Dictionary{{"id", id}, {"displayName", id}});
    return list;
  }
  void comeBack() {
    test.socket().open();
    platform.advance(100ms);
    test.decide("allowed");
  }
  TestPlatform platform;
  TestMeeting test = TestMeeting::joined(platform, {.micEnabled = true, .webcamEnabled = true});
};

TEST_F(ReconnectTest, everythingIsBuiltAnew) {
  test.addPeer("bob");
  const auto eve = test.addPeer("eve");
  test.announce("c1", "bob", "video");
  test.announce("c2", "eve", "audio");
  const auto bob = test.meeting->participants().at("bob");
  const auto me = test.meeting->localParticipant();
  const auto before = me->streams();
  ASSERT_EQ(before.size(), 2u);
  test.listener->take();
  service().forgetRequests();

  test.socket().drop();
  platform.pump();
  EXPECT_EQ(test.meeting->meetingState(), MeetingState::RECONNECTING);
  EXPECT_THAT(test.meeting->participants().at("bob")->streams(), IsEmpty());
  EXPECT_TRUE(platform.media->send.expired());
  service().answer("join", {{"peers", peers({"bob", "zoe"})}});
  comeBack();
  EXPECT_EQ(platform.journal.count("device.load"), 1) << "the device stays loaded";
  EXPECT_THAT(
      service().methods(),
      ElementsAre("requestEntry", "getRouterRtpCapabilities", "createWebRtcTransport",
                  "createWebRtcTransport", "join", "connectWebRtcTransport", "produce", "produce"));
  EXPECT_EQ(service().last("join").at("switchingRoom"), Value(false));
  EXPECT_EQ(me->streams().size(), 2u);
  for (const auto& [id, stream] : me->streams()) EXPECT_FALSE(before.contains(id)) << id;
  EXPECT_TRUE(test.meeting->participants().contains("zoe"));
  EXPECT_FALSE(test.meeting->participants().contains("eve")) << "left while nobody could tell";
  EXPECT_EQ(test.listener->count("onParticipantLeft eve unknown"), 1);
  EXPECT_EQ(test.listener->count("onMeetingJoined"), 1);
  EXPECT_EQ(test.listener->count("onParticipantJoined bob"), 1) << "announced again";
  EXPECT_EQ(test.meeting->participants().at("bob"), bob) << "and the same";
  test.announce("c3", "bob", "video");
  EXPECT_EQ(test.meeting->participants().at("bob")->streams().size(), 1u);
}

// ---- Another meeting over the same connection --------------------------------------------------

TEST_F(ReconnectTest, theRoomIsSwitchedOverTheSameConnection) {
  const auto bob = test.addPeer("bob");
  const auto ear = std::make_shared<RecordingParticipantListener>();
  bob->addEventListener(ear);
  test.announce("c1", "bob", "video");
  test.notify("pinStateChanged", {{"peerId", "bob"}, {"state", {{"cam", true}}}});
  test.listener->take();
  ear->take();
  service().forgetRequests();
  test.meeting->switchTo("hall", "other-token");
  platform.pump();
  EXPECT_EQ(service().last("switchToMeeting"), (Dictionary{{"meetingId", "hall"},
                                                           {"secret", "other-token"},
                                                           {"participantId", "me"},
                                                           {"mode", "SEND_AND_RECV"}}));
  service().answer("join", {{"peers", peers({"zoe"})}});
  test.notify(
      "entryResponded",
      {{"sessionId", "s2"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
  EXPECT_THAT(test.listener->lines(),
              ElementsAre("onParticipantLeft bob", "onParticipantLeft bob switchRoom",
                          "onParticipantJoined zoe", "onMeetingJoined hall"));
  EXPECT_THAT(ear->lines(), ElementsAre("onStreamDisabled c1 video of bob"));
  EXPECT_EQ(test.meeting->id(), "hall");
  EXPECT_THAT(test.meeting->pinnedParticipants(), IsEmpty());
  EXPECT_EQ(service().last("join").at("switchingRoom"), Value(true));
  EXPECT_EQ(service().count("createWebRtcTransport"), 0) << "the transports stay";
  EXPECT_EQ(test.meeting->localParticipant()->streams().size(), 2u);
  EXPECT_EQ(service().connections().size(), 1u);

  test.notify(
      "entryResponded",
      {{"sessionId", "s2"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
  EXPECT_EQ(service().count("join"), 1) << "it is there already";
}

}  // namespace
}  // namespace kestrova::test
