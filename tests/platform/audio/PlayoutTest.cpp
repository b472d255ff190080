#include <kestrova/platform/linux/audio/PulseAudioDevice.h>
#include <kestrova/platform/linux/audio/PulseMicrophone.h>
#include <kestrova/platform/linux/audio/Speaker.h>

#include <gtest/gtest.h>

#include "PulseServer.h"
#include "Signals.h"
#include <cmath>
#include <thread>

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class PlayoutTest : public testing::Test {
protected:
  PlayoutTest() {
    setSpeaker("default");
    device->RegisterAudioCallback(&received);
  }
  ~PlayoutTest() override {
    if (device) device->Terminate();
  }

  void startServer() {
    server.start();
    server.loadSink("speaker1", 2);
    server.loadMicrophone("room", "speaker1");
  }
  /// Whether the tone is to be heard on `speaker1`.
  bool isHeard() {
    auto heard = std::make_shared<Heard>();
    auto microphone = makePulseMicrophone("room");
    return microphone && microphone->start(heard) && heard->hearsTone();
  }
  void expectRealTime(const char* when) {
    // On a busy machine sinks have gaps, in which they take nothing.
    double pace = 0;
    for (int tries = 0; tries < 30 && std::abs(pace - 1) > 0.05; ++tries)
      pace = received.timeOf(60).count() / 0.6;
    EXPECT_NEAR(pace, 1, 0.05) << when;
  }

  PulseServer server;
  Received received{tone()};
  rtc::scoped_refptr<webrtc::AudioDeviceModule> device = PulseAudioDevice::make();
};

TEST_F(PlayoutTest, TakesAudioInRealTimeWhileServersComeAndGo) {
  EXPECT_EQ(device->StartPlayout(), 0);
  EXPECT_EQ(device->StartPlayout(), 0);
  EXPECT_TRUE(device->Playing());
  expectRealTime("without a server");
  startServer();
  EXPECT_TRUE(isHeard());
  expectRealTime("on a sink");
  server.kill();
  expectRealTime("after the server's death");
  startServer();
  EXPECT_TRUE(isHeard());
}

TEST_F(PlayoutTest, GoesOnWhileTheServerHangs) {
  startServer();
  device->StartPlayout();
  ASSERT_TRUE(isHeard());
  server.signal(SIGSTOP);
  expectRealTime("with a hanging server");
  const auto begun = Clock::now();
  device->StopPlayout();
  EXPECT_LT(Clock::now() - begun, 2s);
  // And a connection that is never answered.
  device->StartPlayout();
  expectRealTime("unanswered");
  EXPECT_FALSE(makePulseMicrophone("room"));
  server.signal(SIGCONT);
  EXPECT_TRUE(isHeard());
}

TEST_F(PlayoutTest, FollowsTheSpeaker) {
  server.start();
  server.loadSink("speaker2", 1);  // the default one: it was first
  setSpeaker("speaker1");
  device->StartPlayout();
  expectRealTime("on a sink that is not there");
  server.loadSink("speaker1", 2);
  server.loadMicrophone("room", "speaker1");
  auto heard = std::make_shared<Heard>();
  auto microphone = makePulseMicrophone("room");
  ASSERT_TRUE(microphone && microphone->start(heard) && heard->hearsTone());
  for (const auto* elsewhere : {"none", "default", "speaker2", "no such"}) {
    setSpeaker(elsewhere);
    EXPECT_LT(levelDb(heard->next(100, 300)), 0) << elsewhere;
    setSpeaker("speaker1");
    EXPECT_TRUE(heard->hearsTone()) << elsewhere;
  }
  expectRealTime("after all that");
}

TEST_F(PlayoutTest, StopsAtAnyMoment) {
  startServer();
  for (const auto wait : {0ms, 1ms, 2ms, 5ms, 10ms, 50ms}) {
    device->StartPlayout();
    std::this_thread::sleep_for(wait);  // somewhere in the middle of connecting
    const auto begun = Clock::now();
    device->StopPlayout();
    EXPECT_LT(Clock::now() - begun, 2s);
    EXPECT_FALSE(device->Playing());
  }
  device->StartPlayout();
  EXPECT_TRUE(isHeard());
  device = nullptr;
}

}  // namespace
}  // namespace kestrova
