#include <kestrova/media/SinkHandle.h>

#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

enum class Departure { leaves, letsGo, both };

/// Goes away at the first call of either kind.
class Fleeing final : public VideoSink, public AudioSink {
public:
  explicit Fleeing(std::function<void()> flee) : _flee(std::move(flee)) {}
  void onFrame(const VideoFrame&) override { goOnce(); }
  void onData(const AudioData&) override { goOnce(); }
  bool fled() const { return _fled; }

private:
  void goOnce() {
    if (!_fled.exchange(true)) _flee();
  }
  const std::function<void()> _flee;
  std::atomic<bool> _fled{false};
};

class CallbacksTest : public MeetingFixture {
protected:
  static constexpr double tone = 660;

  static void depart(Attendee& me, Departure departure) {
    if (departure != Departure::letsGo) me.meeting->leave();
    if (departure != Departure::leaves) me.meeting.reset();
  }
  static bool alone(Attendee& me) {
    return me.waitUntil([&] { return me.meeting->participants().empty(); });
  }
};

TEST_F(CallbacksTest, LeavingAndLettingGoWorksInsideEveryEvent) {
  const auto ada = joinSmall("ada", tone);
  const auto token = service.token();
  const auto asking = service.token("--permissions ask_join");
  std::shared_ptr<Attendee> stranger;
  struct Case {
    std::string line;
    std::function<void(Attendee& grace, Meeting& meeting)> provoke;
  };
  const auto control = [&](const char* action, Dictionary more) {
    more["roomId"] = "integration";
    service.control(action, more);
  };
  const auto nothing = [](Attendee&, Meeting&) {};
  // One of the two is refused, whichever state an earlier case has left.
  const auto toggle = [&](Attendee&, Meeting&) {
    ada->meeting->muteMic();
    ada->meeting->unmuteMic();
  };
  const Dictionary pictures{{"peerId", "grace"}, {"kind", "video"}, {"ofPeerId", "ada"}};
  const Case cases[] = {
      {"state CONNECTED", nothing},
      {"entry grace", nothing},
      {"with ada", nothing},
      {"joined", nothing},
      {"own audio", nothing},
      {"own video", nothing},
      {"gets audio", nothing},
      {"gets video", nothing},
      {"speaker", toggle},
      {"status ada", toggle},
      {"loses audio",
       [&](Attendee& grace, Meeting&) {
         if (grace.count("gets audio"))
           ada->meeting->muteMic();
         else
           ada->meeting->unmuteMic();
       }},
      {"mode ada", [&](Attendee&, Meeting&) { ada->meeting->changeMode(Mode::RECV_ONLY); }},
      {"mode grace", [](Attendee&, Meeting& meeting) { meeting.changeMode(Mode::RECV_ONLY); }},
      {"own end", [](Attendee&, Meeting& meeting) { meeting.disableWebcam(); }},
      {"pinned",
       [](Attendee&, Meeting& meeting) { meeting.localParticipant()->pin(PinType::CAM); }},
      {"all paused", [](Attendee&, Meeting& meeting) { meeting.pauseAllStreams(); }},
      {"paused video", [&](Attendee&, Meeting&) { control("pauseBySubManager", pictures); }},
      {"mic asked",
       [&](Attendee&, Meeting&) {
         if (const auto asked = ada->other("grace")) asked->enableMic();
       }},
      {"webcam asked",
       [&](Attendee&, Meeting&) {
         if (const auto asked = ada->other("grace")) asked->enableWebcam();
       }},
      {"asked stranger",
       [&](Attendee&, Meeting&) { stranger = Attendee::join(asking, person("stranger", false)); }},
      {"state RECONNECTING",
       [&](Attendee&, Meeting&) {
         control("dropSocket", {{"peerId", "grace"}});
       }},
      {"error", [](Attendee&, Meeting& meeting) { meeting.changeMode(static_cast<Mode>(77)); }},
      {"left",
       [&](Attendee&, Meeting&) {
         control("removePeer", {{"peerId", "grace"}});
       }},
  };
  for (const auto& [line, provoke] : cases) {
    for (const auto departure : {Departure::both, Departure::letsGo}) {
      SCOPED_TRACE(line + (departure == Departure::both ? ", leave()" : ", last reference"));
      const auto grace = std::make_shared<Attendee>();
      const auto went = std::make_shared<std::atomic<bool>>(false);
      Kestrova::config(token);
      grace->meeting = Kestrova::initMeeting(small(person("grace"), tone));
      grace->onLine = [weak = std::weak_ptr(grace), line = line, departure,
                       went](const std::string& noted) {
        if (noted.rfind(line, 0) != 0 || went->exchange(true)) return;
        depart(*weak.lock(), departure);
      };
      const std::weak_ptr<Meeting> provoked = grace->meeting;
      grace->meeting->addEventListener(grace);
      grace->meeting->localParticipant()->addEventListener(grace);
      grace->meeting->join();
      // What needs no provoking may have happened by then; the rest needs a whole meeting.
      grace->waitUntil([&] {
        return *went || (grace->count("own video") && grace->count("gets video") &&
                         ada->other("grace") && grace->count("own audio"));
      });
      // A switch that is under way refuses another.
      for (int attempt = 0; attempt < 10 && !*went; ++attempt) {
        if (const auto meeting = provoked.lock()) provoke(*grace, *meeting);
        grace->waitUntil([&] { return went->load(); }, std::chrono::seconds(2));
      }
      stranger.reset();
      EXPECT_TRUE(went->load()) << grace->story();
      EXPECT_TRUE(alone(*ada)) << ada->story();
      EXPECT_LE(grace->count("left"), 2) << grace->story();
      if (HasFailure()) return;
      if (line == "mode ada") ada->meeting->changeMode(Mode::SEND_AND_RECV);
      ada->meeting->unmuteMic();
    }
  }
  EXPECT_EQ(ada->count("error"), 0) << ada->story();
}

TEST_F(CallbacksTest, LeavingAndLettingGoWorksInsideSinks) {
  const auto ada = joinSmall("ada", tone);
  enum class Place { track, stream };
  for (const auto place : {Place::track, Place::stream}) {
    for (const auto kind : {MediaType::video, MediaType::audio}) {
      for (const auto departure : {Departure::leaves, Departure::letsGo, Departure::both}) {
        SCOPED_TRACE(std::string(text(kind)) + std::to_string(static_cast<int>(departure)) +
                     (place == Place::track ? " of the track" : " of the stream"));
        const auto grace = joinSmall("grace", tone);
        ASSERT_TRUE(grace->sees(std::string("gets ") + std::string(text(kind))));
        auto stream = grace->stream("ada", kind);
        ASSERT_TRUE(stream) << grace->story();
        const auto sink = std::make_shared<Fleeing>([&] { depart(*grace, departure); });
        if (place == Place::stream) {
          kind == MediaType::video ? stream->addSink(std::static_pointer_cast<VideoSink>(sink))
                                   : stream->addSink(std::static_pointer_cast<AudioSink>(sink));
        } else if (kind == MediaType::video) {
          stream->videoTrack()->addSink(sink);
        } else {
          stream->audioTrack()->addSink(sink);
        }
        stream.reset();
        EXPECT_TRUE(grace->waitUntil([&] { return sink->fled(); })) << grace->story();
        EXPECT_TRUE(alone(*ada)) << ada->story();
        if (HasFailure()) return;
      }
    }
  }
}

}  // namespace
}  // namespace kestrova::test
