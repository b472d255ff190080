#include <kestrova/platform/NotificationCenter.h>
#include <kestrova/platform/linux/audio/LinuxAudioSession.h>
#include <kestrova/platform/linux/audio/MicrophoneRoute.h>
#include <kestrova/platform/linux/audio/PulseAudioDevice.h>
#include <kestrova/platform/linux/audio/PulseMicrophone.h>
#include <kestrova/platform/linux/audio/Speaker.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PulseServer.h"
#include "Signals.h"
#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;
using Reason = AVAudioSessionRouteChangeReason;

/// Hears of route changes, and when.
class RouteEar {
public:
  /// Waits for a change for that reason; those before it are forgotten. Gives how long ago `since`
  /// was when it came.
  Clock::duration await(Reason reason, Clock::time_point since) {
    std::unique_lock held(_lock);
    const auto isIt = [&](const auto& change) { return change.first == reason; };
    std::optional<Clock::time_point> when;
    EXPECT_TRUE(_changed.wait_for(held, 30s, [&] {
      const auto found = std::find_if(_changes.begin(), _changes.end(), isIt);
      if (found == _changes.end()) return false;
      when = found->second;
      _changes.erase(_changes.begin(), found + 1);
      return true;
    })) << static_cast<int>(reason);
    return when.value_or(Clock::time_point::max()) - since;
  }

private:
  void hear(const Dictionary& userInfo) {
    const auto reason = integer(userInfo, AVAudioSessionRouteChangeReasonKey, 0);
    std::scoped_lock held(_lock);
    _changes.emplace_back(static_cast<Reason>(reason), Clock::now());
    _changed.notify_all();
  }
  std::mutex _lock;
  std::condition_variable _changed;
  std::vector<std::pair<Reason, Clock::time_point>> _changes;
  const std::shared_ptr<NotificationCenter::Observer> _observer =
      NotificationCenter::defaultCenter().addObserver(
          AVAudioSessionRouteChangeNotification,
          [this](const Dictionary& userInfo) { hear(userInfo); });
};

class AudioRouteTest : public testing::Test {
protected:
  AudioRouteTest() {
    setSpeaker("default");
    endSpeakerOverride();
    MicrophoneRoute::shared().configure(std::nullopt);
    MicrophoneRoute::shared().configure("");
    MicrophoneRoute::shared().setBuiltIn(std::nullopt);
  }
  ~AudioRouteTest() override {
    if (_device) _device->Terminate();
  }

  /// Starts to watch, and waits until the devices are known.
  std::shared_ptr<void> watch() {
    auto watching = session->watchRoute();
    ear.await(Reason::routeConfigurationChange, Clock::now());
    return watching;
  }
  void play(Signal signal) {
    _received.emplace(std::move(signal));
    _device = PulseAudioDevice::make();
    _device->RegisterAudioCallback(&*_received);
    _device->StartPlayout();
  }
  AVAudioSessionPortDescription input(const std::string& uid) {
    for (const auto& each : session->availableInputs())
      if (each.uid == uid) return each;
    ADD_FAILURE() << "no input " << uid;
    return {};
  }
  /// Waits until that tone is heard.
  static bool hears(Heard& heard, double hz) {
    for (int tries = 0; tries < 100; ++tries)
      if (std::abs(frequencyOf(heard.next(50)) - hz) < 25) return true;
    return false;
  }

  PulseServer server;
  RouteEar ear;
  const std::shared_ptr<AVAudioSession> session = makeAudioSession();

private:
  std::optional<Received> _received;
  rtc::scoped_refptr<webrtc::AudioDeviceModule> _device;
};

TEST_F(AudioRouteTest, WithoutAServerItIsQuietAndFindsOneThatComes) {
  const auto watching = session->watchRoute();
  EXPECT_TRUE(session->availableInputs().empty());
  EXPECT_THROW(session->overrideOutputAudioPort(AVAudioSessionPortOverride::speaker),
               AudioSessionError);
  EXPECT_THROW(session->setPreferredInput(AVAudioSessionPortDescription{"x", "Virtual", "x"}),
               AudioSessionError);
  session->overrideOutputAudioPort(AVAudioSessionPortOverride::none);
  session->setPreferredInput(std::nullopt);
  EXPECT_THROW(session->setCategory("Loud", AVAudioSessionModeDefault), AudioSessionError);
  server.start();
  server.loadTone("desk", 440);
  ear.await(Reason::routeConfigurationChange, Clock::now());
  EXPECT_EQ(input("desk").portType, "Virtual");
  server.kill();
  server.start();
  server.loadTone("other", 440);
  ear.await(Reason::newDeviceAvailable, Clock::now());
  EXPECT_EQ(session->availableInputs().size(), 1u);
  server.signal(SIGSTOP);
  const auto begun = Clock::now();
  session->availableInputs();
  EXPECT_LT(Clock::now() - begun, 5s);
  server.signal(SIGCONT);
}

TEST_F(AudioRouteTest, TellsWithin200MsWhatIsPluggedInAndPulled) {
  server.start();
  server.loadSink("inner", 2, "device.form_factor=internal");
  server.loadTone("desk", 440);
  const auto watching = watch();
  Clock::duration plugged = 1h, pulled = 1h;
  // On a busy machine a single one may take longer.
  for (int round = 0; round < 5; ++round) {
    auto begun = Clock::now();
    const auto headset = server.loadSink("headset", 2, "device.form_factor=headset");
    plugged = std::min(plugged, ear.await(Reason::newDeviceAvailable, begun));
    if (round == 0) {  // and from now on whenever it is there
      server.makeDefaultSink("headset");
      ear.await(Reason::routeConfigurationChange, begun);
    }
    begun = Clock::now();
    server.unload(headset);
    pulled = std::min(pulled, ear.await(Reason::oldDeviceUnavailable, begun));
  }
  EXPECT_LT(plugged, 200ms);
  EXPECT_LT(pulled, 200ms);
  const auto unused = server.loadTone("cam", 880);
  ear.await(Reason::newDeviceAvailable, Clock::now());
  server.unload(unused);
  ear.await(Reason::routeConfigurationChange, Clock::now());
}

TEST_F(AudioRouteTest, PlaysOnTheSpeakerWhileThatIsWanted) {
  server.start();
  server.loadSink("headset", 2, "device.form_factor=headset");
  const auto inner = server.loadSink("inner", 2, "device.form_factor=internal");
  const auto room = server.loadMicrophone("room", "inner");
  server.makeDefaultSink("headset");
  const auto watching = watch();
  play(tone());
  auto inRoom = std::make_shared<Heard>();
  auto onHead = std::make_shared<Heard>();
  server.loadMicrophone("head", "headset");
  auto atHead = makePulseMicrophone("head");
  ASSERT_TRUE(atHead && atHead->start(onHead) && onHead->hearsTone());
  session->overrideOutputAudioPort(AVAudioSessionPortOverride::speaker);
  auto inTheRoom = makePulseMicrophone("room");
  ASSERT_TRUE(inTheRoom && inTheRoom->start(inRoom));
  EXPECT_TRUE(inRoom->hearsTone());
  EXPECT_LT(levelDb(onHead->next(100, 300)), 0);
  // Without a speaker it is heard where it would be otherwise.
  inTheRoom.reset();
  server.unload(room);
  server.unload(inner);
  EXPECT_TRUE(onHead->hearsTone());
  ear.await(Reason::oldDeviceUnavailable, Clock::now());
  server.loadSink("inner", 2, "device.form_factor=internal");
  server.loadMicrophone("room", "inner");
  ear.await(Reason::newDeviceAvailable, Clock::now());
  inTheRoom = makePulseMicrophone("room");
  ASSERT_TRUE(inTheRoom && inTheRoom->start(inRoom) && inRoom->hearsTone());
  session->overrideOutputAudioPort(AVAudioSessionPortOverride::none);
  EXPECT_TRUE(onHead->hearsTone());
  // A program that plays nothing plays nothing.
  setSpeaker("none");
  session->overrideOutputAudioPort(AVAudioSessionPortOverride::speaker);
  EXPECT_EQ(speaker(), "none");
}

TEST_F(AudioRouteTest, ARunningMicrophoneGoesOverWithoutAGap) {
  server.start();
  server.loadTone("low", 400);
  server.loadTone("high", 1000);
  const auto watching = watch();
  auto heard = std::make_shared<Heard>();
  std::atomic<std::int64_t> longest{0};
  heard->onBlock = [&longest, last = Clock::now()]() mutable {
    const auto now = Clock::now();
    longest = std::max(longest.load(), std::int64_t((now - std::exchange(last, now)) / 1us));
  };
  auto microphone = makePulseMicrophone("low");
  ASSERT_TRUE(microphone && microphone->start(heard) && hears(*heard, 400));
  std::int64_t gap = INT64_MAX;
  for (int round = 0; round < 5; ++round) {
    for (const auto& [uid, hz] : {std::pair("high", 1000), std::pair("low", 400)}) {
      longest = 0;
      session->setPreferredInput(input(uid));
      ASSERT_TRUE(hears(*heard, hz)) << uid;
      gap = std::min(gap, longest.load());
    }
  }
  EXPECT_LT(gap, 100'000);
  // One that sleeps: the other is heard until it is awake.
  server.pauseSource("high");
  session->setPreferredInput(input("high"));
  EXPECT_TRUE(hears(*heard, 400) && hears(*heard, 400));
  server.pauseSource("high", false);
  EXPECT_TRUE(hears(*heard, 1000));
  // The last wish counts, whatever is on its way.
  server.pauseSource("low");
  session->setPreferredInput(input("low"));
  session->setPreferredInput(input("high"));
  server.pauseSource("low", false);
  for (int window = 0; window < 5; ++window) EXPECT_TRUE(hears(*heard, 1000));
  RecordProperty("gapUs", std::to_string(gap));
}

TEST_F(AudioRouteTest, WhatWasChosenCountsForTheNextOneAndComesBackAfterItsReturn) {
  server.start();
  auto high = server.loadTone("high", 1000);
  server.loadTone("low", 400);
  server.loadTone("usual", 700, "device.form_factor=internal");
  server.makeDefaultSource("usual");
  const auto watching = watch();
  session->setPreferredInput(input("high"));
  auto heard = std::make_shared<Heard>();
  auto microphone = makePulseMicrophone("low");
  ASSERT_TRUE(microphone && microphone->start(heard) && hears(*heard, 1000));
  // Pulled, it leaves the stream to the server; plugged in again it has it back.
  server.unload(high);
  EXPECT_TRUE(hears(*heard, 700));
  high = server.loadTone("high", 1000);
  EXPECT_TRUE(hears(*heard, 1000));
  server.unload(high);
  auto next = makePulseMicrophone("low");
  auto heardNext = std::make_shared<Heard>();
  ASSERT_TRUE(next && next->start(heardNext) && hears(*heardNext, 400)) << "as it was configured";
  EXPECT_THROW(session->setPreferredInput(AVAudioSessionPortDescription{"high", "", "high"}),
               AudioSessionError);
  // The system's choice: the default, and what is built in while the speaker is overridden.
  server.makeDefaultSource("low");
  session->setPreferredInput(std::nullopt);
  EXPECT_TRUE(hears(*heard, 400));
  session->overrideOutputAudioPort(AVAudioSessionPortOverride::speaker);
  EXPECT_TRUE(hears(*heard, 700));
  session->overrideOutputAudioPort(AVAudioSessionPortOverride::none);
  EXPECT_TRUE(hears(*heard, 400));
  // Who names another microphone for the process means it.
  session->setPreferredInput(input("usual"));
  EXPECT_TRUE(hears(*heard, 700));
  MicrophoneRoute::shared().configure("low");
  EXPECT_TRUE(hears(*heard, 400));
  MicrophoneRoute::shared().configure(std::nullopt);
  EXPECT_THROW(session->setPreferredInput(input("usual")), AudioSessionError) << "it is no device";
  session->setPreferredInput(std::nullopt);
}

TEST_F(AudioRouteTest, ServersThatDuckMusicDoSoWhileAMeetingIsHeard) {
  server.start();
  server.loadSink("speaker1", 2);
  server.loadTone("song", 440);
  server.load("module-role-ducking", "trigger_roles=phone ducking_roles=music volume=-30dB");
  server.load("module-loopback",
              "source=song sink=speaker1 sink_input_properties=media.role=music");
  server.loadMicrophone("room", "speaker1");
  auto heard = std::make_shared<Heard>();
  auto microphone = makePulseMicrophone("room");
  ASSERT_TRUE(microphone && microphone->start(heard) && heard->hearsTone());
  const auto before = levelDb(heard->next(200));
  play([] { return std::int16_t{0}; });
  double now = before;
  for (int tries = 0; tries < 100 && now > before - 20; ++tries) now = levelDb(heard->next(100));
  EXPECT_LT(now, before - 20);
}

}  // namespace
}  // namespace kestrova
