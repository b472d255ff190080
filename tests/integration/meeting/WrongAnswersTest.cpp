#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

class WrongAnswersTest : public MeetingFixture {
protected:
  static constexpr double tone = 660;

  void expectOrdinaryMeeting() {
    service.control("clearFaults", {});
    const auto ada = joinSmall("ada", tone);
    const auto grace = joinSmall("grace", tone);
    EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
    EXPECT_TRUE(grace->getsMedia(tone)) << grace->story();
    grace->leaveAndWait();
    ada->leaveAndWait();
  }

  const List shapes = parseJson(R"([null, 7, "text", [], {}, {"data": null}, {"data": [1, 2]},
      {"data": {"status": "ok"}},
      {"data": {"status": 1, "id": [], "codecs": {}, "headerExtensions": 1e300,
                "iceParameters": "no", "iceCandidates": [[]], "dtlsParameters": [],
                "peers": [1, null, {}], "unsupportedCodecs": "video/VP8", "pubSubUrl": 4}},
      {"data": {"status": "ok", "id": "id", "codecs": [{"kind": "video"}],
                "headerExtensions": [{}], "iceParameters": {}, "iceCandidates": [{}],
                "dtlsParameters": {}, "peers": {}}}])")
                          ->as_array();
};

TEST_F(WrongAnswersTest, DuringTheJoin) {
  const auto token = service.token();
  for (const char* method : {"requestEntry", "getRouterRtpCapabilities", "createWebRtcTransport",
                             "connectWebRtcTransport", "join", "produce"}) {
    SCOPED_TRACE(method);
    for (const auto& shape : shapes) {
      SCOPED_TRACE(boost::json::serialize(shape));
      service.control("clearFaults", {});
      service.control("answerWrong",
                      {{"method", method}, {"answer", shape}, {"alsoRun", true}, {"count", 9}});
      const auto ada = Attendee::join(token, small(person("ada"), tone));
      // What the answer said is not to be believed, and the rest of the join shows what came of it.
      const bool settled = ada->waitUntil([&] {
        return ada->count("joined") + ada->count("state FAILED") + ada->count("left") > 0;
      });
      EXPECT_TRUE(settled) << ada->story();
      if (ada->count("joined") > 0) ada->leaveAndWait();
      if (HasFailure()) return;
    }
  }
  expectOrdinaryMeeting();
}

TEST_F(WrongAnswersTest, InAMeeting) {
  const auto ada = joinSmall("ada", tone);
  const auto grace = joinSmall("grace", tone);
  ASSERT_TRUE(ada->getsMedia(tone)) << ada->story();
  const auto video = ada->stream("grace", MediaType::video);
  const auto other = ada->other("grace");
  auto& meeting = *ada->meeting;
  struct Request {
    const char* method;
    std::function<void()> make;
  };
  const Request requests[] = {
      {"pauseConsumer", [&] { video->pause(); }},
      {"resumeConsumer", [&] { video->resume(); }},
      {"setConsumerPreferredLayers", [&] { other->setQuality(VideoQuality::low); }},
      {"setConsumerPreferredLayers", [&] { other->setQuality(VideoQuality::high); }},
      {"pauseAllConsumers", [&] { meeting.pauseAllStreams(); }},
      {"resumeAllConsumers", [&] { meeting.resumeAllStreams(); }},
      {"enableAdaptiveSubscription", [&] { meeting.enableAdaptiveSubscription(); }},
      {"disableAdaptiveSubscription", [&] { meeting.disableAdaptiveSubscription(); }},
      {"pinStateChanged", [&] { other->pin(PinType::CAM); }},
      {"pinStateChanged", [&] { other->unpin(PinType::CAM); }},
      {"enablePeerMic", [&] { other->enableMic(); }},
      {"iceRestarted",
       [&] {
         service.control("restartIce", {{"roomId", "integration"}, {"peerId", "ada"}});
       }},
      {"closeProducer", [&] { meeting.disableWebcam(); }},
      {"produce", [&] { meeting.enableWebcam(); }},
      {"changeMode", [&] { meeting.changeMode(Mode::RECV_ONLY); }},
      {"changeMode", [&] { meeting.changeMode(Mode::SEND_AND_RECV); }},
      {"switchToMeeting", [&] { meeting.switchTo("integration"); }},
  };
  for (const auto& shape : shapes) {
    for (const auto& [method, make] : requests) {
      service.control("answerWrong", {{"method", method}, {"answer", shape}});
      make();
    }
    // Answered in order: what comes behind them was answered after them.
    const int pins = grace->count("pinned ada") + grace->count("unpinned ada");
    meeting.localParticipant()->pin(PinType::CAM);
    meeting.localParticipant()->unpin(PinType::CAM);
    ada->waitUntil([&] { return grace->count("pinned ada") + grace->count("unpinned ada") > pins; },
                   std::chrono::seconds(2));
    service.control("clearFaults", {});
  }
  EXPECT_EQ(ada->count("left"), 0) << ada->story();
  // The connection is as good as ever: what is published by now, if anything, is seen.
  const int seen = grace->picture->frames;
  EXPECT_TRUE(grace->waitUntil([&] {
    return !grace->stream("ada", MediaType::video) || grace->picture->frames > seen + 5;
  })) << grace->story();
  ada->leaveAndWait();
  EXPECT_EQ(ada->count("left manual"), 1);
  EXPECT_TRUE(grace->waitUntil([&] { return grace->meeting->participants().empty(); }));
  grace->leaveAndWait();
  expectOrdinaryMeeting();
}

}  // namespace
}  // namespace kestrova::test
