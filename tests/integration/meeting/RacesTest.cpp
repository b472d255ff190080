#include "MeetingFixture.h"
#include <random>
#include <thread>

namespace kestrova::test {
namespace {

class RacesTest : public MeetingFixture {
protected:
  static constexpr double tone = 660;
};

TEST_F(RacesTest, EverythingAtOnceAndThenAway) {
  const auto ada = joinSmall("ada", tone);
  const auto grace = joinSmall("grace", tone);
  ASSERT_TRUE(ada->getsMedia(tone)) << ada->story();
  using Act = std::function<void()>;
  const auto meeting = ada->meeting;
  const auto eachStream = [&](void (MediaStream::*act)()) {
    for (const auto& [id, person] : meeting->participants())
      for (const auto& [streamId, stream] : person->streams()) ((*stream).*act)();
  };
  const auto eachPerson = [&](const std::function<void(Participant&)>& act) {
    for (const auto& [id, person] : meeting->participants()) act(*person);
  };
  const std::vector<std::vector<Act>> threads{
      {[&] { meeting->muteMic(); }, [&] { meeting->unmuteMic(); }},
      {[&] { meeting->disableWebcam(); }, [&] { meeting->enableWebcam(); },
       [&] { meeting->switchWebcam(); }},
      {[&] { meeting->changeMode(Mode::RECV_ONLY); },
       [&] { meeting->changeMode(Mode::SEND_AND_RECV); },
       [&] { meeting->changeMode(Mode::SIGNALLING_ONLY); }},
      {[&] { meeting->pauseAllStreams(); }, [&] { meeting->resumeAllStreams(); },
       [&] { eachStream(&MediaStream::pause); }, [&] { eachStream(&MediaStream::resume); }},
      {[&] { eachPerson([](auto& person) { person.setQuality(VideoQuality::low); }); },
       [&] { eachPerson([](auto& person) { person.pin(PinType::CAM); }); },
       [&] { eachPerson([](auto& person) { person.toJsonString(); }); },
       [&] { eachPerson([](auto& person) { person.enableMic(); }); }},
      {[&] {
        service.control("dropSocket", {{"roomId", "integration"}, {"peerId", "ada"}});
      }},
  };
  constexpr auto length = std::chrono::seconds(5);
  const auto end = std::chrono::steady_clock::now() + length;
  std::vector<std::jthread> running;
  for (std::size_t i = 0; i < threads.size(); ++i) {
    running.emplace_back([&, i] {
      std::minstd_rand random(static_cast<unsigned>(i) + 1);
      // The drops leave time for a return.
      const int longestPause = threads[i].size() == 1 ? 3000 : 60;
      while (std::chrono::steady_clock::now() < end) {
        threads[i][random() % threads[i].size()]();
        std::this_thread::sleep_for(
            std::chrono::milliseconds(random() % static_cast<unsigned>(longestPause)));
      }
    });
  }
  running.clear();
  // Whatever was under way, the last word counts.
  ASSERT_TRUE(ada->waitUntil([&] {
    return meeting->meetingState() == MeetingState::CONNECTED && ada->other("grace");
  })) << ada->story();
  std::vector<std::jthread> leaving;
  for (int i = 0; i < 3; ++i) leaving.emplace_back([&] { meeting->leave(); });
  leaving.emplace_back([&] { meeting->changeMode(Mode::SEND_AND_RECV); });
  leaving.emplace_back([&] { meeting->enableWebcam(); });
  leaving.clear();
  EXPECT_TRUE(ada->sees("left manual")) << ada->story();
  EXPECT_EQ(ada->count("left"), 2) << ada->story();
  EXPECT_EQ(meeting->meetingState(), MeetingState::DISCONNECTED);
  EXPECT_TRUE(grace->waitUntil([&] { return grace->meeting->participants().empty(); }));
  grace->leaveAndWait();
}

TEST_F(RacesTest, LeavingWhileJoiningFromManyThreads) {
  const auto token = service.token();
  std::minstd_rand random(7);
  for (int round = 0; round < 15; ++round) {
    auto ada = Attendee::join(token, small(person("ada"), tone));
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 500));
    {
      std::vector<std::jthread> threads;
      for (int i = 0; i < 3; ++i)
        threads.emplace_back([meeting = ada->meeting, i] {
          if (i == 0) meeting->leave();
          if (i == 1) meeting->changeMode(Mode::RECV_ONLY);
          if (i == 2) meeting->disableWebcam();
        });
    }
    ada->meeting.reset();
  }
  const auto ada = joinSmall("ada", tone);
  EXPECT_EQ(ada->meeting->participants().size(), 0u) << ada->story();
  const auto grace = joinSmall("grace", tone);
  EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
}

}  // namespace
}  // namespace kestrova::test
