#include <gmock/gmock.h>

#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

using testing::Contains;
using testing::Not;
using testing::StartsWith;

class ControlsTest : public MeetingFixture {
protected:
  static constexpr double tone = 660;

  /// Which protocols the connected candidates of a stream have.
  static std::set<std::string> protocolsOf(const std::shared_ptr<MediaStream>& stream) {
    const auto stats = boost::asio::co_spawn(boost::asio::system_executor(), stream->stats(),
                                             boost::asio::use_future)
                           .get();
    const auto report = boost::json::parse(stats).as_array();
    std::set<std::string> connected;
    for (const auto& entry : report) {
      const auto& pair = entry.as_object();
      if (text(pair, "type", "") == "candidate-pair" && text(pair, "state", "") == "succeeded")
        connected.insert(text(pair, "localCandidateId", ""));
    }
    std::set<std::string> protocols;
    for (const auto& entry : report)
      if (connected.contains(text(entry.as_object(), "id", "")))
        protocols.insert(text(entry.as_object(), "protocol", ""));
    return protocols;
  }
  /// No picture comes any more, once those under way have.
  static bool standsStill(Attendee& me) {
    int seen = -1;
    auto since = std::chrono::steady_clock::now();
    return me.waitUntil([&] {
      const auto now = std::chrono::steady_clock::now();
      if (const int frames = me.picture->frames; frames != seen) {
        seen = frames;
        since = now;
      }
      return now - since > std::chrono::milliseconds(600);
    });
  }
};

TEST_F(ControlsTest, MediaRunsOverTheProtocolAskedFor) {
  struct Case {
    PreferredProtocol asked;
    std::string used;
  };
  for (const auto& [asked, used] :
       {Case{PreferredProtocol::TCP_ONLY, "tcp"}, Case{PreferredProtocol::UDP_ONLY, "udp"}}) {
    SCOPED_TRACE(used);
    std::vector<std::shared_ptr<Attendee>> both;
    for (const std::string id : {"ada", "grace"}) {
      auto options = small(person(id), tone);
      options.preferredProtocol = asked;
      both.push_back(joinWithTone(std::move(options), tone));
    }
    for (const auto& me : both) {
      ASSERT_TRUE(me->getsMedia(tone)) << me->story();
      auto streams = me->meeting->localParticipant()->streams();
      for (const auto& [id, other] : me->meeting->participants()) streams.merge(other->streams());
      // The engine tells of the pair in use some time after it is in use.
      for (const auto& [id, stream] : streams)
        EXPECT_TRUE(me->waitUntil([&] { return protocolsOf(stream) == std::set{used}; }))
            << testing::PrintToString(protocolsOf(stream));
    }
    for (const auto& me : both) me->leaveAndWait();
  }
}

TEST_F(ControlsTest, AMoveToAnotherMeetingTakesTheMediaAlong) {
  const auto inRoom = [&](const char* id, const char* room) {
    auto options = person(id, false);
    options.meetingId = room;
    const auto attendee = Attendee::join(service.token(), std::move(options));
    EXPECT_TRUE(attendee->sees("joined")) << attendee->story();
    return attendee;
  };
  const auto hereBefore = inRoom("here", "integration");
  const auto thereBefore = inRoom("there", "elsewhere");
  const auto ada = joinSmall("ada", tone);
  ASSERT_TRUE(hereBefore->getsMedia(tone)) << hereBefore->story();

  ada->meeting->switchTo("elsewhere");
  ASSERT_TRUE(ada->sees("moved elsewhere")) << ada->story();
  EXPECT_EQ(ada->meeting->id(), "elsewhere");
  EXPECT_TRUE(hereBefore->sees("without ada switchRoom")) << hereBefore->story();
  EXPECT_TRUE(thereBefore->sees("with ada"));
  EXPECT_TRUE(thereBefore->getsMedia(tone)) << thereBefore->story();
  EXPECT_EQ(ada->other("here"), nullptr) << ada->story();
  ASSERT_TRUE(ada->waitUntil([&] { return ada->other("there") != nullptr; })) << ada->story();

  // Everything works on in the new meeting: receiving, controls, and a drop of the connection.
  const auto late = Attendee::join(service.token(), [&] {
    auto options = small(person("late"), tone);
    options.meetingId = "elsewhere";
    return options;
  }());
  EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
  ada->meeting->disableWebcam();
  EXPECT_TRUE(thereBefore->sees("loses video")) << thereBefore->story();
  EXPECT_TRUE(ada->sees("own end video")) << ada->story();
  ada->meeting->enableWebcam();
  EXPECT_TRUE(thereBefore->seesTimes("gets video", 2)) << thereBefore->story();
  EXPECT_TRUE(ada->seesTimes("own video", 2)) << ada->story();
  service.control("dropSocket", {{"roomId", "elsewhere"}, {"peerId", "ada"}});
  EXPECT_TRUE(ada->seesTimes("joined", 2)) << ada->story();
  EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
  EXPECT_EQ(ada->meeting->participants().size(), 2u) << ada->story();
  EXPECT_EQ(hereBefore->count("with ada"), 1);

  // And back again, this time at the service's wish.
  const int joined = hereBefore->count("with ada");
  service.control("switchRoom",
                  {{"roomId", "elsewhere"}, {"peerId", "ada"}, {"toRoomId", "integration"}});
  ASSERT_TRUE(ada->sees("moved integration")) << ada->story();
  EXPECT_TRUE(hereBefore->seesTimes("with ada", joined + 1)) << hereBefore->story();
  EXPECT_TRUE(hereBefore->getsMedia(tone)) << hereBefore->story() << "\n" << ada->story();
  EXPECT_THAT(ada->lines(), Not(Contains(StartsWith("error"))));
}

TEST_F(ControlsTest, AChangeOfModeEndsAndStartsTheMedia) {
  const auto ada = joinSmall("ada", tone);
  const auto grace = joinSmall("grace", tone);
  ASSERT_TRUE(grace->getsMedia(tone) && ada->getsMedia(tone));
  struct Step {
    Mode mode;
    bool sends;
    bool receives;
  };
  for (const auto& [mode, sends, receives] :
       {Step{Mode::RECV_ONLY, false, true}, Step{Mode::SEND_AND_RECV, true, true},
        Step{Mode::SIGNALLING_ONLY, false, false}, Step{Mode::SEND_AND_RECV, true, true}}) {
    SCOPED_TRACE(wireText(mode));
    const int lost = grace->count("loses ");
    const int heardOf = grace->count("mode ada");
    ada->meeting->changeMode(mode);
    ASSERT_TRUE(grace->seesTimes("mode ada", heardOf + 1)) << grace->story();
    EXPECT_TRUE(ada->waitUntil([&] { return ada->meeting->localParticipant()->mode() == mode; }));
    EXPECT_EQ(grace->other("ada")->mode(), mode);
    if (sends) {
      EXPECT_TRUE(grace->getsMedia(tone)) << grace->story();
    } else {
      EXPECT_TRUE(grace->seesTimes("loses ", lost + 2)) << grace->story();
      EXPECT_TRUE(grace->other("ada")->streams().empty());
      EXPECT_TRUE(
          ada->waitUntil([&] { return ada->meeting->localParticipant()->streams().empty(); }));
    }
    if (receives) {
      EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
    } else {
      EXPECT_TRUE(ada->waitUntil([&] { return ada->other("grace")->streams().empty(); }))
          << ada->story();
    }
    if (HasFailure()) return;
  }
  EXPECT_EQ(ada->count("error"), 0) << ada->story();
}

TEST_F(ControlsTest, PausedStreamsStandStillAndGoOn) {
  const auto ada = Attendee::join(service.token(), person("ada", false));
  ASSERT_TRUE(ada->sees("joined"));
  const auto grace = joinSmall("grace", tone);
  ASSERT_TRUE(ada->getsMedia(tone)) << ada->story();
  const auto video = ada->stream("grace", MediaType::video);
  const auto audio = ada->stream("grace", MediaType::audio);
  ASSERT_TRUE(video && audio);

  struct Way {
    const char* name;
    std::function<void()> pause;
    std::function<void()> resume;
    bool both;
  };
  const Dictionary consumer{
      {"roomId", "integration"}, {"peerId", "ada"}, {"kind", "video"}, {"ofPeerId", "grace"}};
  const Way ways[] = {
      {"the stream", [&] { video->pause(); }, [&] { video->resume(); }, false},
      {"all of video", [&] { ada->meeting->pauseAllStreams("video"); },
       [&] { ada->meeting->resumeAllStreams("video"); }, false},
      {"all", [&] { ada->meeting->pauseAllStreams(); }, [&] { ada->meeting->resumeAllStreams(); },
       true},
      {"the service", [&] { service.control("pauseConsumer", consumer); },
       [&] { service.control("resumeConsumer", consumer); }, false},
  };
  for (const auto& [name, pause, resume, both] : ways) {
    SCOPED_TRACE(name);
    pause();
    EXPECT_TRUE(ada->waitUntil([&] { return video->isPaused() && audio->isPaused() == both; }));
    EXPECT_TRUE(standsStill(*ada)) << ada->story();
    resume();
    EXPECT_TRUE(ada->waitUntil([&] { return !video->isPaused() && !audio->isPaused(); }));
    EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
  }
  // The subscription manager's pause tells its reason, and is no pause of our own.
  auto held = consumer;
  held["reason"] = "bandwidth";
  service.control("pauseBySubManager", held);
  EXPECT_TRUE(ada->sees("paused video")) << ada->story();
  EXPECT_TRUE(ada->waitUntil([&] { return video->pausedBy() == "bandwidth"; }));
  EXPECT_TRUE(standsStill(*ada)) << ada->story();
  service.control("resumeBySubManager", held);
  EXPECT_TRUE(ada->sees("resumed video")) << ada->story();
  EXPECT_TRUE(ada->waitUntil([&] { return !video->pausedBy(); }));
  EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
}

TEST_F(ControlsTest, AnotherQualityIsAnotherWidth) {
  const auto ada = Attendee::join(service.token(), person("ada", false));
  ASSERT_TRUE(ada->sees("joined"));
  const auto grace = joinWithTone("grace", tone);
  ASSERT_TRUE(ada->getsPictures()) << ada->story();
  const auto sender = ada->other("grace");
  ASSERT_TRUE(ada->waitUntil([&] { return ada->picture->width >= 1280; })) << ada->picture->width;
  sender->setQuality(VideoQuality::low);
  EXPECT_TRUE(ada->waitUntil([&] { return ada->picture->width <= 480; })) << ada->picture->width;
  EXPECT_TRUE(ada->getsPictures());
  sender->setQuality(VideoQuality::high);
  EXPECT_TRUE(ada->waitUntil([&] { return ada->picture->width >= 1280; })) << ada->picture->width;
  EXPECT_EQ(ada->picture->clockWentBack, 0);
}

TEST_F(ControlsTest, IceRestartsCostNoMedia) {
  const auto ada = joinSmall("ada", tone);
  const auto grace = joinSmall("grace", tone);
  ASSERT_TRUE(ada->getsMedia(tone) && grace->getsMedia(tone));
  for (const char* direction : {"send", "receive"}) {
    SCOPED_TRACE(direction);
    const auto answer = service.control(
        "restartIce", {{"roomId", "integration"}, {"peerId", "ada"}, {"direction", direction}});
    EXPECT_TRUE(boolean(answer, "ok", false));
    // The old connection may carry for a moment; what comes seconds later is the new one's.
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
      EXPECT_TRUE(grace->getsMedia(tone)) << grace->story();
    }
  }
  EXPECT_EQ(ada->count("state RECONNECTING"), 0) << ada->story();
}

TEST_F(ControlsTest, HostsAskForMediaPinAndRemove) {
  const auto host = Attendee::join(service.token("--permissions allow_mod"), person("host", false));
  ASSERT_TRUE(host->sees("joined"));
  useTone(tone);
  const auto guest =
      Attendee::join(service.token("--permissions allow_join"), person("guest", false));
  ASSERT_TRUE(guest->sees("joined"));
  ASSERT_TRUE(host->sees("with guest"));
  const auto asked = host->other("guest");

  guest->grantsRequests = false;
  asked->enableMic();
  EXPECT_TRUE(guest->sees("mic asked by host")) << guest->story();
  guest->grantsRequests = true;
  asked->enableWebcam();
  ASSERT_TRUE(guest->sees("own video")) << guest->story();
  EXPECT_TRUE(host->getsPictures()) << host->story();
  EXPECT_EQ(guest->count("own audio"), 0);
  asked->enableMic();
  ASSERT_TRUE(guest->sees("own audio")) << guest->story();
  EXPECT_TRUE(host->getsMedia(tone)) << host->story();
  asked->disableMic();
  EXPECT_TRUE(host->sees("loses audio")) << host->story();
  asked->disableWebcam();
  EXPECT_TRUE(host->sees("loses video")) << host->story();
  EXPECT_TRUE(
      guest->waitUntil([&] { return guest->meeting->localParticipant()->streams().empty(); }));

  asked->pin(PinType::CAM);
  for (const auto& me : {host, guest}) EXPECT_TRUE(me->sees("pinned guest")) << me->story();
  EXPECT_TRUE(guest->meeting->localParticipant()->pinState().cam.value_or(false));
  asked->unpin(PinType::CAM);
  for (const auto& me : {host, guest}) EXPECT_TRUE(me->sees("unpinned guest")) << me->story();

  asked->remove();
  EXPECT_TRUE(guest->sees("left removePeer")) << guest->story();
  EXPECT_TRUE(host->sees("without guest removePeer")) << host->story();
  EXPECT_TRUE(host->meeting->participants().empty());
  EXPECT_EQ(host->count("error") + guest->count("error"), 0) << guest->story();
}

}  // namespace
}  // namespace kestrova::test
