#include <gtest/gtest.h>

#include "examples/support/EndOfSpeech.h"
#include "examples/support/Notes.h"
#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

namespace speech {
namespace {

using namespace std::chrono_literals;
using kestrova::AudioData;
using std::chrono::milliseconds;

using Samples = std::vector<std::int16_t>;

constexpr int rate = 48'000;

std::size_t samplesOf(milliseconds time) {
  return static_cast<std::size_t>(time.count()) * rate / 1000;
}

double amplitude(double decibels) {
  return 32768 * std::pow(10, decibels / 20) * std::numbers::sqrt2;
}

/// A voice as far as levels go: a tone so many dB below full scale.
Samples voice(milliseconds time, double decibels = -20) {
  Samples samples(samplesOf(time));
  for (std::size_t n = 0; n < samples.size(); ++n)
    samples[n] = static_cast<std::int16_t>(
        amplitude(decibels) * std::sin(2 * std::numbers::pi * 200 * static_cast<double>(n) / rate));
  return samples;
}

/// The noise of a room, whose level goes evenly from one to the other.
Samples room(milliseconds time, double from, double to) {
  std::minstd_rand random;
  std::uniform_real_distribution<double> spread(-std::sqrt(1.5), std::sqrt(1.5));
  Samples samples(samplesOf(time));
  for (std::size_t n = 0; n < samples.size(); ++n) {
    const double part = static_cast<double>(n) / static_cast<double>(samples.size());
    samples[n] = static_cast<std::int16_t>(amplitude(from + (to - from) * part) * spread(random));
  }
  return samples;
}
Samples room(milliseconds time, double decibels) {
  return room(time, decibels, decibels);
}

Samples operator+(Samples left, const Samples& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// One listener, and all that it has found.
struct Listener {
  EndOfSpeech speech;
  int began = 0;
  std::vector<Utterance> ended;

  void note(Heard heard) {
    began += heard.began;
    for (auto& each : heard.ended) ended.push_back(std::move(each));
  }
  void hear(const Samples& samples, std::size_t blockSamples = rate / 100, int sampleRate = rate) {
    for (std::size_t at = 0; at < samples.size(); at += blockSamples) {
      const auto count = std::min(blockSamples, samples.size() - at);
      note(speech.take({&samples[at], sampleRate, 1, static_cast<int>(count)}));
    }
  }
  bool heardNothing() const { return began == 0 && ended.empty(); }
};

void expectAbout(milliseconds expected, milliseconds found, milliseconds within = 30ms) {
  EXPECT_LE(std::chrono::abs(expected - found), within) << found.count() << " ms";
}

TEST(EndOfSpeechTest, FindsTwoThingsThatWereSaidWithTheirEdges) {
  Listener listener;
  listener.hear(Samples(samplesOf(1s)) + voice(800ms));
  EXPECT_EQ(listener.began, 1);
  EXPECT_TRUE(listener.ended.empty()) << "before the quiet";
  listener.hear(room(590ms, -70));
  EXPECT_TRUE(listener.ended.empty()) << "a breath";
  listener.hear(room(1500ms, -70) + voice(2s, -30) + room(1s, -70));
  ASSERT_EQ(listener.ended.size(), 2U);
  EXPECT_EQ(listener.began, 2);
  expectAbout(800ms, listener.ended[0].spoken);
  expectAbout(2000ms, listener.ended[1].spoken);
  for (const auto& said : listener.ended) {
    EXPECT_EQ(said.sampleRate, rate);
    const auto length = milliseconds(said.samples.size() * 1000 / rate);
    expectAbout(said.spoken + 400ms, length);
    const auto isLoud = [](std::int16_t sample) { return std::abs(sample) > 500; };
    const auto first = std::find_if(said.samples.begin(), said.samples.end(), isLoud);
    expectAbout(200ms, milliseconds((first - said.samples.begin()) * 1000 / rate));
  }
}

TEST(EndOfSpeechTest, ABreathDoesNotEndAndSoftSyllablesDoNotCut) {
  Listener listener;
  listener.hear(room(1s, -55) + voice(300ms) + room(500ms, -55) + voice(300ms) + voice(700ms, -45) +
                room(700ms, -55));
  ASSERT_EQ(listener.ended.size(), 1U);
  expectAbout(1800ms, listener.ended[0].spoken);
}

TEST(EndOfSpeechTest, SilenceNoiseAndClicksAreNoSpeech) {
  Samples typing;
  for (int key = 0; key < 20; ++key) typing = typing + voice(40ms, -10) + room(110ms, -60);
  const struct {
    const char* what;
    Samples samples;
  } cases[] = {
      {"digital silence", Samples(samplesOf(5s))},
      {"a faint room", room(5s, -58)},
      {"one click", Samples(samplesOf(1s)) + voice(40ms, 0) + Samples(samplesOf(2s))},
      {"typing", room(1s, -60) + typing + room(1s, -60)},
      {"noise that grows slowly", room(30s, -60, -25)},
      {"noise that comes and goes",
       room(10s, -60, -45) + room(10s, -45, -60) + room(10s, -60, -45)},
  };
  for (const auto& each : cases) {
    Listener listener;
    listener.hear(each.samples);
    EXPECT_TRUE(listener.heardNothing()) << each.what;
    listener.note(listener.speech.finish());
    EXPECT_TRUE(listener.heardNothing()) << each.what << ", at its end";
  }
}

TEST(EndOfSpeechTest, SpeechIsFoundInALoudRoomAndAgainInAQuietOne) {
  Listener listener;
  listener.hear(room(20s, -60, -35) + voice(1s, -12) + room(2s, -35));
  ASSERT_EQ(listener.ended.size(), 1U);
  expectAbout(1000ms, listener.ended[0].spoken);
  listener.hear(room(1s, -60) + voice(1s, -40) + room(1s, -60));
  ASSERT_EQ(listener.ended.size(), 2U);
  expectAbout(1000ms, listener.ended[1].spoken);
}

TEST(EndOfSpeechTest, AFanThatIsTurnedOnIsTakenForSpeechOnceOnly) {
  Listener listener;
  listener.hear(room(2s, -60) + room(60s, -35));
  EXPECT_EQ(listener.began, 1);
  ASSERT_EQ(listener.ended.size(), 1U);
  EXPECT_LT(listener.ended[0].spoken, 10s);
  listener.hear(voice(1s, -15) + room(1s, -35));
  ASSERT_EQ(listener.ended.size(), 2U);
  expectAbout(1000ms, listener.ended[1].spoken);
}

TEST(EndOfSpeechTest, BlocksOfAnySizeGiveTheSame) {
  const auto sound = room(500ms, -60) + voice(500ms) + room(1s, -60) + voice(300ms) + room(1s, -60);
  Listener usual;
  usual.hear(sound);
  ASSERT_EQ(usual.ended.size(), 2U);
  for (const std::size_t size :
       {std::size_t(1), std::size_t(7), std::size_t(441), std::size_t(4'800), sound.size()}) {
    Listener listener;
    listener.hear(sound, size);
    EXPECT_EQ(listener.began, 2) << size;
    ASSERT_EQ(listener.ended.size(), 2U) << size;
    for (std::size_t n = 0; n < 2; ++n)
      EXPECT_EQ(listener.ended[n].samples, usual.ended[n].samples) << size;
  }
}

TEST(EndOfSpeechTest, StereoIsMixedAndOtherRatesAreTakenAsTheyCome) {
  Listener listener;
  const auto mono = voice(500ms) + Samples(samplesOf(1s));
  Samples stereo;
  for (const auto sample : mono) stereo.insert(stereo.end(), {sample, 0});
  for (std::size_t at = 0; at < stereo.size(); at += 960)
    listener.note(listener.speech.take({&stereo[at], rate, 2, 480}));
  ASSERT_EQ(listener.ended.size(), 1U);
  expectAbout(500ms, listener.ended[0].spoken);
  EXPECT_EQ(*std::max_element(listener.ended[0].samples.begin(), listener.ended[0].samples.end()),
            *std::max_element(mono.begin(), mono.end()) / 2);

  // Of speech that goes on at another rate, each part has its own.
  listener.hear(voice(300ms));
  listener.hear(voice(900ms), 160, 16'000);
  ASSERT_EQ(listener.ended.size(), 2U);
  EXPECT_EQ(listener.ended[1].sampleRate, rate);
  listener.hear(Samples(rate), 160, 16'000);
  ASSERT_EQ(listener.ended.size(), 3U);
  EXPECT_EQ(listener.ended[2].sampleRate, 16'000);
  expectAbout(2700ms, listener.ended[2].spoken);
}

TEST(EndOfSpeechTest, WhoGoesOnIsGivenOutInPiecesWithoutAGap) {
  Listener listener{.speech = EndOfSpeech({.longest = 1s})};
  Samples speech;  // each sample says where it was
  for (std::size_t n = 0; n < samplesOf(3500ms); ++n)
    speech.push_back(static_cast<std::int16_t>(n % 20'011 - 10'000));
  listener.hear(speech + Samples(samplesOf(1s)));
  ASSERT_EQ(listener.ended.size(), 4U);
  EXPECT_EQ(listener.began, 4);
  Samples all;
  for (const auto& piece : listener.ended) {
    EXPECT_LE(piece.spoken, 1s);
    all = all + piece.samples;
  }
  all.resize(speech.size());
  EXPECT_EQ(all, speech);
}

TEST(EndOfSpeechTest, TheEndOfAStreamIsTheEndOfWhatWasSaidAndOfTheListening) {
  Listener listener;
  listener.hear(Samples(samplesOf(1s)) + voice(505ms));
  EXPECT_TRUE(listener.ended.empty());
  listener.note(listener.speech.finish());
  ASSERT_EQ(listener.ended.size(), 1U);
  expectAbout(500ms, listener.ended[0].spoken);
  listener.note(listener.speech.finish());
  listener.hear(voice(1s) + Samples(samplesOf(1s)));
  EXPECT_EQ(listener.began, 1);
  EXPECT_EQ(listener.ended.size(), 1U);
}

TEST(EndOfSpeechTest, WhatMakesNoSenseIsLeftOut) {
  Listener listener;
  const Samples some(480, 10'000);
  for (const AudioData& odd :
       {AudioData{nullptr, rate, 1, 480}, AudioData{some.data(), 0, 1, 480},
        AudioData{some.data(), -8'000, 1, 480}, AudioData{some.data(), rate, 0, 480},
        AudioData{some.data(), rate, 1, -1}, AudioData{}})
    for (int n = 0; n < 20; ++n) listener.note(listener.speech.take(odd));
  EXPECT_TRUE(listener.heardNothing());
  listener.hear(voice(200ms) + Samples(samplesOf(1s)));
  EXPECT_EQ(listener.ended.size(), 1U);
}

TEST(NotesTest, EachSoundsForItsTimeAndIsSilentForTheRest) {
  EXPECT_TRUE(notes(0).empty());
  EXPECT_TRUE(notes(-1).empty());
  const auto tune = notes(8);
  ASSERT_EQ(tune.size(), samplesOf(4s));
  int before = 0;
  for (std::size_t note = 0; note < 8; ++note) {
    const auto start = tune.begin() + static_cast<std::ptrdiff_t>(note * samplesOf(500ms));
    const auto rest = start + static_cast<std::ptrdiff_t>(samplesOf(300ms));
    EXPECT_LT(std::abs(*start), 100) << "a click";
    int waves = 0;
    for (auto at = start + 1; at < rest; ++at) waves += at[-1] < 0 && *at >= 0 ? 1 : 0;
    EXPECT_EQ(waves > before, note != 6) << "higher, until they start over";
    before = waves;
    EXPECT_TRUE(std::all_of(rest, start + static_cast<std::ptrdiff_t>(samplesOf(500ms)),
                            [](std::int16_t sample) { return sample == 0; }));
  }
}

}  // namespace
}  // namespace speech
