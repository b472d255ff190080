#include <kestrova/platform/linux/audio/VoiceProcessing.h>

#include <gtest/gtest.h>

#include "Signals.h"

namespace kestrova {
namespace {

/// What 6 seconds of the signal have become louder by in their last 2.
double gainOf(VoiceProcessing& processing, Signal signal) {
  std::vector<std::int16_t> before, after;
  for (int block = 0; block < 600; ++block) {
    PulseRecording::Block samples;
    for (auto& sample : samples) sample = signal();
    if (block >= 400) before.insert(before.end(), samples.begin(), samples.end());
    processing.process(samples, std::chrono::milliseconds(10));
    if (block >= 400) after.insert(after.end(), samples.begin(), samples.end());
  }
  return levelDb(after) - levelDb(before);
}

TEST(VoiceProcessing, DoesWhatTheConstraintsAskForAndNothingElse) {
  const struct {
    const char* key;
    Signal signal;
    double least;
    double most;
  } rows[] = {
      {"googNoiseSupression", noise(1000), -60, -6},
      {"googHighpassFilter", tone(20, 8000), -60, -6},
      {"googHighpassFilter", tone(440, 8000), -0.5, 0.5},
      {"googAutoGainControl", speech(300), 3, 40},
      {"googEchoCancellation", speech(3000), -3, 1},  // nothing is played
  };
  for (const auto& row : rows) {
    const auto processing = makeVoiceProcessing({{row.key, "true"}});
    ASSERT_TRUE(processing) << row.key;
    const auto gain = gainOf(*processing, row.signal);
    EXPECT_GE(gain, row.least) << row.key;
    EXPECT_LE(gain, row.most) << row.key;
  }
  EXPECT_FALSE(makeVoiceProcessing({}));
  EXPECT_FALSE(makeVoiceProcessing({{"googNoiseSupression", "false"},
                                    {"googEchoCancellation", "1"},
                                    {"googAutoGainControl", ""},
                                    {"googHighpassFilter", "TRUE"},
                                    {"googNoiseSuppression", "true"}}));
}

TEST(PlayoutReference, ForgetsListenersThatAreGone) {
  struct Listener final : FarEndListener {
    void onFarEnd(const AudioData&, std::chrono::milliseconds) override {
      ++calls;
      if (whenCalled) whenCalled();
    }
    int calls = 0;
    std::function<void()> whenCalled;
  };
  PlayoutReference reference;
  auto lasting = std::make_shared<Listener>();
  auto leaving = std::make_shared<Listener>();
  // Lets go of itself, and brings another, in the middle of a call.
  leaving->whenCalled = [&] {
    leaving = nullptr;
    reference.add(std::make_shared<Listener>());
  };
  reference.add(lasting);
  reference.add(leaving);
  for (int i = 0; i < 3; ++i) reference.publish({}, {});
  EXPECT_FALSE(leaving);
  EXPECT_EQ(lasting->calls, 3);
}

}  // namespace
}  // namespace kestrova
