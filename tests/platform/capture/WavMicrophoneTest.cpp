#include <kestrova/platform/linux/capture/CaptureDevices.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CaptureWatcher.h"
#include <cmath>
#include <cstring>
#include <numbers>

namespace kestrova::test {
namespace {

using testing::HasSubstr;

std::string little(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i));
  return text;
}

std::string chunk(const std::string& tag, const std::string& body) {
  return tag + little(body.size(), 4) + body + std::string(body.size() % 2, '\0');
}

std::string format(unsigned kind, unsigned channels, unsigned rate, unsigned bits) {
  return little(kind, 2) + little(channels, 2) + little(rate, 4) +
         little(rate * channels * bits / 8, 4) + little(channels * bits / 8, 2) + little(bits, 2);
}

std::string wav(const std::string& chunks) {
  return "RIFF" + little(chunks.size() + 4, 4) + "WAVE" + chunks;
}

std::unique_ptr<MicrophoneCapturer> microphone(const std::string& path) {
  auto devices = makeCaptureDevices();
  devices->configure({.camera = "none", .microphone = path});
  return devices->makeMicrophoneCapturer();
}

/// What is heard of a file, as soon as it is `count` samples.
std::shared_ptr<Ear> hear(const std::string& path, std::size_t count) {
  auto ear = std::make_shared<Ear>();
  auto capturer = microphone(path);
  EXPECT_TRUE(capturer->start(ear));
  EXPECT_TRUE(ear->waitFor(count));
  capturer->stop();
  EXPECT_EQ(ear->wrong, 0);
  return ear;
}

std::string floatText(float value) {
  std::uint32_t bits = 0;
  std::memcpy(&bits, &value, 4);
  return little(bits, 4);
}

TEST(WavMicrophone, HearsEveryKindOfSample) {
  const TemporaryFolder folder;
  // Three frames, so that every delivery starts elsewhere in the file.
  const std::vector<std::int16_t> ramp{256, -512, 16384};
  const auto extensible = format(0xfffe, 1, 48000, 24) + little(22, 2) + little(24, 2) +
                          little(4, 4) + little(1, 2) + std::string(14, 'g');
  const std::string pcm16 = little(256, 2) + little(0x10000 - 512, 2) + little(16384, 2);
  const std::string pcm24 = little(0x010012, 3) + little(0xfe0034, 3) + little(0x400056, 3);
  const struct {
    const char* what;
    std::string chunks;
  } rows[] = {
      {"8 bit", chunk("fmt ", format(1, 1, 8000, 8)) + chunk("data", "\x81\x7e\xc0")},
      {"16 bit", chunk("fmt ", format(1, 1, 48000, 16)) + chunk("data", pcm16)},
      {"24 bit", chunk("fmt ", format(1, 1, 44100, 24)) + chunk("data", pcm24)},
      {"24 bit extensible", chunk("fmt ", extensible) + chunk("data", pcm24)},
      {"32 bit",
       chunk("fmt ", format(1, 1, 192000, 32)) +
           chunk("data", little(0x01000000, 4) + little(0xfe000000, 4) + little(0x40000000, 4))},
      {"float", chunk("fmt ", format(3, 1, 16000, 32)) +
                    chunk("data", floatText(256 / 32767.0f) + floatText(-512 / 32767.0f) +
                                      floatText(16384 / 32767.0f))},
      {"odd chunks", chunk("junk", "odd") + chunk("fmt ", format(1, 1, 48000, 16)) +
                         chunk("LIST", "") + chunk("data", pcm16) + "trailing"},
      {"cut off",
       chunk("fmt ", format(1, 1, 48000, 16)) + "data" + little(4'000'000'000, 4) + pcm16 + "x"},
  };
  for (const auto& row : rows) {
    const auto ear = hear(folder.write("a.WAV", wav(row.chunks)), 4000);
    EXPECT_EQ(ear->channels, 1);
    for (std::size_t i = 0; i < 4000; ++i)
      ASSERT_EQ(ear->samples[i], ramp[i % 3]) << row.what << ", sample " << i;
  }
}

TEST(WavMicrophone, TakesTwoChannelsAndTamesFloats) {
  const TemporaryFolder folder;
  std::string frame;
  for (const int sample : {100, 200, 300, 400, 500, 600}) frame += little(sample, 2);
  auto ear = hear(
      folder.write("six.wav", wav(chunk("fmt ", format(1, 6, 44100, 16)) + chunk("data", frame))),
      2 * 441);
  EXPECT_EQ(ear->channels, 2);
  EXPECT_EQ(ear->rate, 44100);
  EXPECT_EQ(ear->samples[880], 100);
  EXPECT_EQ(ear->samples[881], 200);
  ear = hear(folder.write("wild.wav", wav(chunk("fmt ", format(3, 2, 48000, 32)) +
                                          chunk("data", floatText(NAN) + floatText(-INFINITY) +
                                                            floatText(7) + floatText(-1)))),
             4);
  EXPECT_THAT(std::vector(ear->samples.begin(), ear->samples.begin() + 4),
              testing::ElementsAre(0, -32767, 32767, -32767));
}

TEST(WavMicrophone, BringsOtherRatesTo48Kilohertz) {
  const TemporaryFolder folder;
  for (const int rate : {11025, 22050}) {
    std::string data;
    for (int i = 0; i < rate; ++i)  // a whole number of waves, so that the start over isn't heard
      data += little(static_cast<std::uint64_t>(
                         std::lround(10000 * std::sin(2 * std::numbers::pi * 250 * i / rate))),
                     2);
    const auto ear = hear(
        folder.write("a.wav", wav(chunk("fmt ", format(1, 1, static_cast<unsigned>(rate), 16)) +
                                  chunk("data", data))),
        48000 * 11 / 10);
    EXPECT_EQ(ear->rate, 48000);
    double worst = 0;
    for (std::size_t i = 0; i < 48000 * 11 / 10; ++i)
      worst = std::max(
          worst, std::abs(ear->samples[i] - 10000 * std::sin(2 * std::numbers::pi * 250 *
                                                             static_cast<double>(i) / 48000)));
    EXPECT_LT(worst, 60) << rate;
  }
}

TEST(WavMicrophone, TellsWhatIsWrongWithAFile) {
  const TemporaryFolder folder;
  const auto plain = chunk("fmt ", format(1, 1, 48000, 16));
  const struct {
    const char* name;
    std::string bytes;
    const char* text;
  } rows[] = {
      {"empty.wav", "", "is no WAV file"},
      {"noise.wav", std::string(1000, 'n'), "is no WAV file"},
      {"big.wav", "RIFX" + wav(plain).substr(4), "is no WAV file"},
      {"headless.wav", wav(chunk("data", "abcd")), "unknown format"},
      {"silent.wav", wav(plain), "has no sound"},
      {"short.wav", wav(plain + chunk("data", "x")), "has no sound"},
      {"endless.wav", wav(plain + "junk" + little(0xffffffff, 4) + "x"), "has no sound"},
      {"cut.wav", wav(chunk("fmt ", format(1, 1, 48000, 16).substr(0, 10))), "cut off"},
      {"law.wav", wav(chunk("fmt ", format(7, 1, 8000, 8)) + chunk("data", "abcd")),
       "kind 7 with 8 bits can't be played"},
      {"deep.wav", wav(chunk("fmt ", format(3, 1, 48000, 64)) + chunk("data", "abcdefgh")),
       "kind 3 with 64 bits"},
      {"slow.wav", wav(chunk("fmt ", format(1, 1, 100, 16)) + chunk("data", "abcd")),
       "100 Hz can't be played"},
      {"none.wav", wav(chunk("fmt ", format(1, 0, 48000, 16)) + chunk("data", "abcd")),
       "0 channels"},
  };
  const auto check = [](const std::string& path, const char* text) {
    auto capturer = microphone(path);
    std::vector<std::string> failures;
    capturer->onFailure([&](const std::string& error) { failures.push_back(error); });
    EXPECT_FALSE(capturer->start(std::make_shared<Ear>())) << path;
    EXPECT_THAT(failures, testing::ElementsAre(HasSubstr(text)));
  };
  for (const auto& row : rows) check(folder.write(row.name, row.bytes), row.text);
  check(folder.path("missing.wav"), "No such file or directory");
}

}  // namespace
}  // namespace kestrova::test
