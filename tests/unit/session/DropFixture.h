#pragma once

#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

namespace kestrova::test {

/// A meeting whose connection is lost in the middle of something.
struct Drop {
  explicit Drop(InitMeetingOptions options = {.micEnabled = true, .webcamEnabled = true})
      : test(platform, std::move(options)) {}

  ScriptedService& service() { return *platform.service; }
  std::shared_ptr<Participant> me() { return test.meeting->localParticipant(); }
  void enter() {
    test.lookUp();
    test.reachSocket();
  }
  void join() {
    enter();
    test.decide("allowed");
  }
  /// What is asked of the service is counted from the return on.
  void dropAndComeBack(std::chrono::milliseconds away) {
    dropAndReturn(away);
    platform.advance(std::chrono::seconds(30));
  }
  void dropAndReturn(std::chrono::milliseconds away) {
    test.socket().drop();
    platform.pump();
    platform.advance(away);
    service().forgetRequests();
    platform.media->published.clear();
    test.reachSocket();
    test.decide("allowed");
  }
  void expectOneMeeting(std::size_t streams, const std::string& joinedAs = "onMeetingJoined") {
    EXPECT_EQ(test.meeting->meetingState(), MeetingState::CONNECTED);
    EXPECT_EQ(service().count("requestEntry"), 1);
    EXPECT_EQ(service().count("join"), 1);
    EXPECT_FALSE(platform.media->send.expired());
    EXPECT_FALSE(platform.media->receive.expired());
    EXPECT_EQ(service().count("createWebRtcTransport"), 2);
    EXPECT_EQ(service().count("produce"), static_cast<long>(streams));
    EXPECT_EQ(platform.media->published.size(), streams);
    EXPECT_EQ(me()->streams().size(), streams);
    for (const auto& [id, stream] : me()->streams()) EXPECT_FALSE(stream->producer()->closed());
    EXPECT_EQ(platform.capture->microphoneRunning, streams > 0);
    EXPECT_TRUE(test.listener->has(joinedAs));
    EXPECT_FALSE(test.listener->has("onError"));
    EXPECT_FALSE(test.listener->has("onMeetingStateChanged FAILED"));
    EXPECT_FALSE(test.listener->has("onMeetingLeft"));
  }

  TestPlatform platform;
  TestMeeting test;
};

}  // namespace kestrova::test
