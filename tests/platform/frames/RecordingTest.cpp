#include <gtest/gtest.h>
#include <unistd.h>

#include "examples/support/Recording.h"
#include "examples/support/WavFile.h"
#include "examples/support/Y4mFile.h"
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>

namespace recording {
namespace {

using namespace std::chrono_literals;
using kestrova::AudioData;
using kestrova::VideoFrame;

class RecordingTest : public testing::Test {
protected:
  RecordingTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "recording-XXXXXX").string();
    folder = mkdtemp(pattern.data());
  }
  ~RecordingTest() override { std::filesystem::remove_all(folder); }

  std::string read(const char* name) const {
    std::ifstream in(folder / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static std::uint32_t number(const std::string& bytes, std::size_t at, std::size_t size) {
    std::uint32_t value = 0;
    for (std::size_t i = size; i-- > 0;)
      value = value << 8 | static_cast<std::uint8_t>(bytes.at(at + i));
    return value;
  }
  static std::int16_t sample(const std::string& wav, std::size_t index) {
    return static_cast<std::int16_t>(number(wav, 44 + 2 * index, 2));
  }
  void hear(Recording& to, std::int16_t value, int rate = 16'000, int channels = 1) {
    const std::vector<std::int16_t> samples(static_cast<std::size_t>(rate / 100 * channels), value);
    to.sound()->onData({samples.data(), rate, channels, rate / 100});
  }
  /// A picture with a bright left half.
  static VideoFrame picture(int width, int height, int rotation = 0) {
    const auto buffer = std::make_shared<kestrova::I420Buffer>(width, height);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) buffer->mutableY()[y * width + x] = x < width / 2 ? 200 : 50;
    return {buffer, 0, rotation};
  }

  std::filesystem::path folder;
  Recording::Clock::time_point clock{};
  std::unique_ptr<Recording> recording;
  void open() {
    recording = std::make_unique<Recording>(folder, "ada", [this] { return clock; });
  }
};

constexpr std::size_t pictureBytes = 640 * 360 * 3 / 2 + 6;

TEST_F(RecordingTest, bothFilesAreAsLongAsTheMeetingWhateverCame) {
  open();
  clock += 1s;
  hear(*recording, 1000);
  for (int i = 0; i < 99; ++i) {
    clock += 10ms;
    hear(*recording, 1000);
  }
  clock += 2s;  // a pause, and sound again
  hear(*recording, 2000);
  recording->pictures()->onFrame(picture(320, 180));
  clock += 1s;
  recording->pictures()->onFrame(picture(1280, 720));
  clock += 10ms;
  recording->finish();
  recording->pictures()->onFrame(picture(320, 180));
  hear(*recording, 3000);
  EXPECT_EQ(recording->problem(), "");

  const auto wav = read("ada.wav");
  const auto total = std::chrono::duration<double>(clock.time_since_epoch()).count();
  EXPECT_EQ(wav.substr(0, 4) + wav.substr(8, 8) + wav.substr(36, 4), "RIFFWAVEfmt data");
  EXPECT_EQ(number(wav, 4, 4), wav.size() - 8);
  EXPECT_EQ(number(wav, 24, 4), 16'000u);
  EXPECT_EQ(number(wav, 40, 4), wav.size() - 44);
  EXPECT_NEAR(static_cast<double>(wav.size() - 44) / 32'000, total, 0.02);
  EXPECT_EQ(sample(wav, 15'000), 0) << "before the first block";
  EXPECT_EQ(sample(wav, 16'000), 1000);
  EXPECT_EQ(sample(wav, 31'900), 1000);
  EXPECT_EQ(sample(wav, 40'000), 0) << "the pause";
  EXPECT_EQ(sample(wav, static_cast<std::size_t>(16 * 3990)), 2000) << "at its own time";

  const auto y4m = read("ada.y4m");
  const auto header = y4m.find('\n') + 1;
  EXPECT_EQ(y4m.substr(0, header), "YUV4MPEG2 W640 H360 F30:1 Ip A1:1 C420mpeg2\n");
  EXPECT_EQ((y4m.size() - header) % pictureBytes, 0u);
  EXPECT_NEAR(static_cast<double>((y4m.size() - header) / pictureBytes) / 30, total, 0.05);
}

TEST_F(RecordingTest, aHeapOfLateBlocksIsNoPause) {
  open();
  for (int second = 0; second < 3; ++second) {
    clock += 500ms;  // the machine was busy
    for (int i = 0; i < 50; ++i) hear(*recording, 700);
  }
  recording->finish();
  const auto wav = read("ada.wav");
  int silent = 0;
  for (std::size_t i = 8'000; i < (wav.size() - 44) / 2; ++i) silent += sample(wav, i) == 0;
  EXPECT_EQ(silent, 0);
}

TEST_F(RecordingTest, soundInAnotherFormatIsFittedIn) {
  open();
  hear(*recording, 100, 48'000, 2);
  hear(*recording, 200, 16'000, 1);
  hear(*recording, 300, 44'100, 2);
  recording->finish();
  const auto wav = read("ada.wav");
  EXPECT_EQ(number(wav, 22, 2), 2u);
  ASSERT_EQ(wav.size(), 44u + 3 * 480 * 4);
  for (const auto& [index, value] :
       {std::pair{0, 100}, {960, 200}, {1919, 200}, {1920, 300}, {2879, 300}})
    EXPECT_EQ(sample(wav, static_cast<std::size_t>(index)), value) << index;
}

TEST_F(RecordingTest, picturesAreTurnedUprightAndFittedIn) {
  struct Case {
    int width, height, rotation;
    std::pair<int, int> bright, dark, black;  // columns and rows of 640x360
  };
  const Case cases[] = {
      {1280, 720, 0, {10, 10}, {630, 350}, {-1, -1}},
      {33, 17, 180, {600, 180}, {40, 180}, {2, 1}},
      {360, 640, 0, {230, 180}, {410, 180}, {10, 180}},
      {640, 360, 90, {320, 20}, {320, 340}, {10, 180}},
      {640, 360, 270, {320, 340}, {320, 20}, {10, 180}},
      {1, 1, 0, {-1, -1}, {320, 180}, {10, 10}},
  };
  for (const auto& given : cases) {
    Y4mFile file(folder / "p.y4m", 640, 360, 30);
    file.draw(picture(given.width, given.height, given.rotation));
    file.repeatTo(1);
    const auto bytes = read("p.y4m");
    const auto start = bytes.find("FRAME\n") + 6;
    const auto at = [&](std::pair<int, int> place) {
      return static_cast<std::uint8_t>(
          bytes.at(start + static_cast<std::size_t>(place.second * 640 + place.first)));
    };
    const auto what = std::to_string(given.width) + " turned by " + std::to_string(given.rotation);
    if (given.bright.first >= 0) {
      EXPECT_EQ(at(given.bright), 200) << what;
    }
    EXPECT_EQ(at(given.dark), 50) << what;
    if (given.black.first >= 0) {
      EXPECT_EQ(at(given.black), 16) << what;
    }
  }
  Y4mFile file(folder / "p.y4m", 640, 360, 30);
  file.draw({});  // nothing to see
  file.repeatTo(2);
  EXPECT_EQ(file.length(), 2u);
}

TEST_F(RecordingTest, aFullDiskEndsTheRecordingAndNothingElse) {
  const auto nowhere = folder / "gone";
  Recording lost(nowhere, "ada", [this] { return clock; });
  for (int i = 0; i < 3; ++i) {
    lost.pictures()->onFrame(picture(320, 180));
    hear(lost, 1);
  }
  lost.finish();
  EXPECT_NE(lost.problem().find("gone/ada"), std::string::npos);
}

}  // namespace
}  // namespace recording
