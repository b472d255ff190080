#include <kestrova/platform/linux/audio/LinuxAudioSession.h>
#include <kestrova/platform/linux/audio/PulseAudioDevice.h>
#include <kestrova/platform/linux/audio/PulseMicrophone.h>
#include <kestrova/platform/linux/audio/Speaker.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "PulseServer.h"
#include "Signals.h"
#include <atomic>
#include <cmath>
#include <future>
#include <optional>

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class MicrophoneTest : public testing::Test {
protected:
  MicrophoneTest() { setSpeaker("default"); }
  ~MicrophoneTest() override {
    if (_device) _device->Terminate();
  }

  /// A server with a speaker, and a microphone that hears it.
  void startServer() {
    server.start();
    server.loadSink("speaker1", 2);
    module = server.loadMicrophone("room", "speaker1");
    server.makeDefaultSource("room");
  }
  void play(Signal signal) {
    _received.emplace(std::move(signal));
    _device = PulseAudioDevice::make();
    _device->RegisterAudioCallback(&*_received);
    _device->StartPlayout();
  }

  PulseServer server;
  std::uint32_t module = 0;

private:
  std::optional<Received> _received;
  rtc::scoped_refptr<webrtc::AudioDeviceModule> _device;
};

/// Tells of a microphone's failures.
class Failures {
public:
  explicit Failures(MicrophoneCapturer& microphone, std::function<void()> alsoDo = {}) {
    microphone.onFailure([this, alsoDo](const std::string& error) {
      if (alsoDo) alsoDo();
      texts.push_back(error);
      if (texts.size() == 1) _first.set_value();
    });
  }
  bool await() { return _first.get_future().wait_for(60s) == std::future_status::ready; }
  std::vector<std::string> texts;

private:
  std::promise<void> _first;
};

TEST_F(MicrophoneTest, HearsATonePlayedOnTheSpeakerUnchanged) {
  startServer();
  play(tone());
  auto heard = std::make_shared<Heard>();
  auto microphone = makePulseMicrophone();
  ASSERT_TRUE(microphone && microphone->start(heard) && heard->hearsTone());
  // On a busy machine there are gaps; between them the tone is what it was.
  std::vector<std::int16_t> sound;
  for (int tries = 0; tries < 50 && std::abs(frequencyOf(sound) - kToneHz) > 3; ++tries)
    sound = heard->next(400);
  EXPECT_NEAR(frequencyOf(sound), kToneHz, 3);
  EXPECT_NEAR(levelDb(sound), 20 * std::log10(kToneAmplitude / std::sqrt(2.0)), 0.3);
  microphone->stop();
  const auto blocks = heard->blocks();
  EXPECT_TRUE(microphone->start(std::make_shared<Heard>()));
  EXPECT_EQ(heard->blocks(), blocks);
}

TEST_F(MicrophoneTest, CancelsTheEchoOfWhatIsPlayed) {
  startServer();
  play(speech(6000));
  auto raw = std::make_shared<Heard>();
  auto cancelled =
      std::make_shared<Heard>(std::map<std::string, std::string>{{"googEchoCancellation", "true"}});
  auto one = makePulseMicrophone("room");
  auto other = makePulseMicrophone("room");
  ASSERT_TRUE(one->start(raw) && other->start(cancelled));
  double echo = 0, rest = 0;
  // Once it has found the delay and the shape of the echo; gaps of a busy machine set it back.
  for (int second = 0; second < 15 && (second < 4 || echo - rest < 15); ++second) {
    auto window = std::async(std::launch::async, [&] { return levelDb(raw->next(1000)); });
    rest = levelDb(cancelled->next(1000));
    echo = window.get();
  }
  RecordProperty("echoReturnLossEnhancementDb", std::to_string(echo - rest));
  EXPECT_GT(echo, 50);
  EXPECT_GT(echo - rest, 15);
}

TEST_F(MicrophoneTest, IsThereOnlyIfItCanHear) {
  const auto timed = [](const std::string& name) {
    const auto begun = Clock::now();
    const bool isThere = makePulseMicrophone(name) != nullptr;
    EXPECT_LT(Clock::now() - begun, 3s);
    return isThere;
  };
  const auto session = makeAudioSession();
  EXPECT_FALSE(timed("")) << "no server";
  EXPECT_TRUE(session->availableInputs().empty());
  {
    // Something that takes connections and never says a word.
    const int deaf = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    server.socketPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(deaf, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(deaf, 5), 0);
    EXPECT_FALSE(timed("")) << "a deaf server";
    ::close(deaf);
    ::unlink(server.socketPath().c_str());
  }
  server.start();
  server.loadSink("speaker1", 2);
  EXPECT_FALSE(timed("")) << "only what the speaker plays";
  EXPECT_TRUE(session->availableInputs().empty());
  server.loadSink("virtual", 1);
  EXPECT_TRUE(timed("virtual.monitor"));
  setSpeaker("virtual");
  EXPECT_FALSE(timed("virtual.monitor"));
  server.loadMicrophone("desk", "virtual");
  EXPECT_TRUE(timed(""));
  EXPECT_FALSE(timed("no such source"));
  EXPECT_TRUE(timed("The-desk")) << "as people are shown it";
  EXPECT_THAT(session->availableInputs(),
              testing::ElementsAre(AVAudioSessionPortDescription{"The-desk", "Virtual", "desk"}));
}

TEST_F(MicrophoneTest, GoesOnWhereTheServerMovesItAndFailsOnceWhenNoneIsLeft) {
  startServer();
  play(tone());
  const auto other = server.loadMicrophone("desk", "speaker1");
  for (const auto* name : {"", "room"}) {
    auto heard = std::make_shared<Heard>();
    auto microphone = makePulseMicrophone(name);
    Failures failures(*microphone, [&] { microphone->stop(); });
    ASSERT_TRUE(microphone->start(heard) && heard->hearsTone());
    server.unload(module);
    EXPECT_EQ(heard->next(100).size(), 4800u);
    EXPECT_TRUE(heard->hearsTone()) << name;
    EXPECT_TRUE(failures.texts.empty());
    microphone.reset();
    module = server.loadMicrophone("room", "speaker1");
    server.makeDefaultSource("room");
  }
  server.unload(other);
  auto microphone = makePulseMicrophone();
  Failures failures(*microphone, [&] { microphone->stop(); });
  ASSERT_TRUE(microphone->start(std::make_shared<Heard>()));
  server.unload(module);  // what is left is the speaker's own monitor
  EXPECT_TRUE(failures.await());
  EXPECT_FALSE(microphone->start(std::make_shared<Heard>()));
  microphone.reset();
  EXPECT_THAT(failures.texts, testing::ElementsAre("the microphone is gone"));
}

TEST_F(MicrophoneTest, FailsOnceWithItsServerAndMayStartAgainFromThere) {
  startServer();
  auto heard = std::make_shared<Heard>();
  auto microphone = makePulseMicrophone();
  std::optional<bool> restarted;
  Failures failures(*microphone, [&] { restarted = microphone->start(heard); });
  ASSERT_TRUE(microphone->start(heard));
  server.kill();
  EXPECT_TRUE(failures.await());
  EXPECT_EQ(restarted, false);
  startServer();
  EXPECT_TRUE(microphone->start(heard));
  microphone.reset();
  EXPECT_THAT(failures.texts, testing::ElementsAre("the sound server is gone"));
}

TEST_F(MicrophoneTest, ComesToRestFromEverywhere) {
  startServer();
  for (const bool destroys : {false, true}) {
    auto heard = std::make_shared<Heard>();
    auto microphone = makePulseMicrophone();
    std::promise<void> done;
    std::atomic<int> calls{0};
    heard->onBlock = [&] {
      if (++calls != 3) return;
      microphone->stop();
      if (destroys) microphone.reset();
      done.set_value();
    };
    ASSERT_TRUE(microphone->start(heard));
    ASSERT_EQ(done.get_future().wait_for(60s), std::future_status::ready);
    microphone.reset();
    EXPECT_EQ(calls, 3);
  }
  // Nothing comes from a paused source, a stop comes through all the same.
  for (int round = 0; round < 3; ++round) {
    auto quiet = makePulseMicrophone();
    ASSERT_TRUE(quiet->start(std::make_shared<Heard>()));
    server.pauseSource("room");
    const auto begun = Clock::now();
    quiet->stop();
    EXPECT_LT(Clock::now() - begun, 3s);
  }
  auto microphone = makePulseMicrophone();
  for (int round = 0; round < 20; ++round) {
    auto heard = std::make_shared<Heard>();
    auto starting = std::async(std::launch::async, [&] { return microphone->start(heard); });
    const auto halt = [&] { microphone->stop(); };
    auto one = std::async(std::launch::async, halt);
    auto two = std::async(std::launch::async, halt);
    starting.get();
    one.get();
    two.get();
    microphone->stop();
    const auto blocks = heard->blocks();
    EXPECT_EQ(heard.use_count(), 1) << "a session outlives its stop";
    EXPECT_EQ(heard->blocks(), blocks);
  }
}

}  // namespace
}  // namespace kestrova
