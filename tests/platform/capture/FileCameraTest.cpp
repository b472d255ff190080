#include <kestrova/platform/linux/capture/CaptureDevices.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include "CaptureWatcher.h"

namespace kestrova::test {
namespace {

using testing::HasSubstr;

struct FileCapture {
  explicit FileCapture(const std::string& path) : devices(makeCaptureDevices()) {
    devices->configure({.camera = path, .microphone = "none"});
    capturer = devices->makeCameraCapturer();
    watcher.attach(*capturer);
  }
  ~FileCapture() { capturer.reset(); }
  std::string start(std::size_t which = 0) {
    return watcher.start(*capturer, devices->cameras().at(which));
  }

  CaptureWatcher watcher;
  std::shared_ptr<CaptureDevices> devices;
  std::unique_ptr<RTCCameraVideoCapturer> capturer;
};

/// One colour, in planes of the sizes given.
std::string y4mFrame(int y, int u, int v, std::size_t luma, std::size_t chroma) {
  return "FRAME Ip\n" + std::string(luma, static_cast<char>(y)) +
         std::string(chroma, static_cast<char>(u)) + std::string(chroma, static_cast<char>(v));
}

std::string jpeg(int grey, int sampling, int width = 64, int height = 48) {
  std::vector<unsigned char> pixels(static_cast<std::size_t>(width * height * 3),
                                    static_cast<unsigned char>(grey));
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  const auto compressor = ::tjInitCompress();
  ::tjCompress2(compressor, pixels.data(), width, 0, height, TJPF_RGB, &bytes, &size, sampling, 90,
                0);
  std::string text(reinterpret_cast<char*>(bytes), size);
  ::tjFree(bytes);
  ::tjDestroy(compressor);
  return text;
}

/// The Y of the first pictures, and a check that all are whole.
std::vector<int> brightness(FileCapture& capture, int count) {
  EXPECT_TRUE(capture.watcher.waitForFrames(count));
  EXPECT_TRUE(capture.watcher.stop(*capture.capturer));
  std::vector<int> found;
  std::int64_t last = 0;
  for (const auto& frame : capture.watcher.frames) {
    EXPECT_GT(frame.timestampUs, last);
    last = frame.timestampUs;
    if (static_cast<int>(found.size()) < count) found.push_back(quarterColour(*frame.buffer, 3)[0]);
  }
  return found;
}

TEST(FileCamera, PlaysY4mInEverySampling) {
  const TemporaryFolder folder;
  const struct {
    const char* name;
    std::size_t luma, chroma;
    std::array<int, 3> colour;  // as it arrives
  } rows[] = {
      {"", 31 * 17, 16 * 9, {100, 60, 200}},
      {" C420jpeg", 31 * 17, 16 * 9, {100, 60, 200}},
      {" C420mpeg2 XCOLORRANGE=FULL", 31 * 17, 16 * 9, {101, 68, 191}},
      {" C422", 31 * 17, 16 * 17, {100, 60, 200}},
      {" C444 A1:1 Ip", 31 * 17, 31 * 17, {100, 60, 200}},
      {" Cmono", 31 * 17, 0, {100, 128, 128}},
  };
  for (const auto& row : rows) {
    const auto frame = y4mFrame(100, 60, 200, row.luma, row.chroma);
    const auto path = folder.write(
        "a.Y4M", "YUV4MPEG2 W31 H17 F60000:1001" + std::string(row.name) + "\n" + frame + frame);
    FileCapture capture(path);
    const auto cameras = capture.devices->cameras();
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_EQ(cameras[0].position, CameraPosition::front);
    EXPECT_EQ(cameras[1].position, CameraPosition::back);
    EXPECT_NE(cameras[0].uniqueId, cameras[1].uniqueId);
    EXPECT_EQ(cameras[0].activeFormat.width, 31);
    EXPECT_EQ(cameras[0].activeFormat.fps, 60);
    ASSERT_EQ(capture.start(1), "") << row.name;
    ASSERT_TRUE(capture.watcher.waitForFrames(5)) << row.name;
    ASSERT_TRUE(capture.watcher.stop(*capture.capturer));
    for (std::size_t i = 0; i < 3; ++i)
      EXPECT_NEAR(quarterColour(*capture.watcher.frames[3].buffer, 2)[i], row.colour[i], 1)
          << row.name;
  }
}

TEST(FileCamera, StartsOverWhereAFileIsCutOffAndKeepsItsRate) {
  const TemporaryFolder folder;
  const std::string header = "YUV4MPEG2 W16 H16 F50:1 C420\n";
  const auto one = y4mFrame(50, 128, 128, 256, 64), two = y4mFrame(150, 128, 128, 256, 64);
  FileCapture capture(folder.write("cut.y4m", header + one + two + one.substr(0, 200)));
  ASSERT_EQ(capture.start(), "");
  EXPECT_EQ(brightness(capture, 26),
            (std::vector<int>{50,  150, 50,  150, 50,  150, 50,  150, 50,  150, 50,  150, 50,
                              150, 50,  150, 50,  150, 50,  150, 50,  150, 50,  150, 50,  150}));
  const auto span = capture.watcher.frames[25].timestampUs - capture.watcher.frames[0].timestampUs;
  EXPECT_NEAR(static_cast<double>(span), 500e3, 200e3) << "25 intervals at 50 a second";
}

TEST(FileCamera, PlaysMjpegAndPassesOverWhatIsDamaged) {
  const TemporaryFolder folder;
  for (const int sampling : {TJSAMP_420, TJSAMP_422, TJSAMP_444, TJSAMP_GRAY, TJSAMP_440}) {
    const auto dark = jpeg(60, sampling), light = jpeg(200, sampling);
    auto damaged = dark.substr(0, dark.size() - 4);
    const auto path = folder.write("a.mjpg", "garbage\xff" + dark + std::string("\xff\x00\xff", 3) +
                                                 damaged + light + light.substr(0, 100));
    FileCapture capture(path);
    EXPECT_EQ(capture.devices->cameras()[0].activeFormat.width, 64);
    ASSERT_EQ(capture.start(), "") << sampling;
    const auto seen = brightness(capture, 4);
    const std::vector<int> wanted{16 + 60 * 219 / 255, 16 + 200 * 219 / 255};
    for (std::size_t i = 0; i < seen.size(); ++i)
      EXPECT_NEAR(seen[i], wanted[i % 2], 2) << "sampling " << sampling << ", picture " << i;
  }
  // A picture of an odd size, and one of another size behind it.
  FileCapture capture(
      folder.write("odd.mjpeg", jpeg(60, TJSAMP_420, 33, 47) + jpeg(200, TJSAMP_420, 80, 20)));
  ASSERT_EQ(capture.start(), "");
  ASSERT_TRUE(capture.watcher.waitForFrames(4));
  ASSERT_TRUE(capture.watcher.stop(*capture.capturer));
  EXPECT_EQ(capture.watcher.frames[2].buffer->i420().width, 33);
  EXPECT_EQ(capture.watcher.frames[3].buffer->i420().width, 80);
}

TEST(FileCamera, TellsWhatIsWrongWithAFile) {
  const TemporaryFolder folder;
  const std::string header = "YUV4MPEG2 W16 H16 F30:1 ";
  const auto frame = y4mFrame(1, 2, 3, 256, 64);
  const struct {
    const char* name;
    std::string bytes;
    const char* text;
  } rows[] = {
      {"a.y4m", "", "is no YUV4MPEG2 file"},
      {"b.y4m", "RIFFxxxxWAVE\n", "is no YUV4MPEG2 file"},
      {"c.y4m", "YUV4MPEG2 " + std::string(100'000, 'x'), "is no YUV4MPEG2 file"},
      {"d.y4m", header + "C420p10\n" + frame, "'420p10' can't be read"},
      {"e.y4m", "YUV4MPEG2 W16\n" + frame, "no size"},
      {"f.y4m", "YUV4MPEG2 W99999999999 H-4\n" + frame, "no size"},
      {"g.y4m", header + "\n", "has no whole picture"},
      {"h.y4m", header + "\n" + frame.substr(0, 300), "has no whole picture"},
      {"i.y4m", header + "\nFRAMF\n" + frame, "has no whole picture"},
      {"j.mjpg", "", "has no JPEG picture"},
      {"k.mjpg", std::string(5000, '\xff'), "has no JPEG picture"},
      {"l.mjpg", "\xff\xd8\xff\xe0" + std::string(4, '\0'), "has no JPEG picture"},
      {"m.mjpg", jpeg(1, TJSAMP_420).substr(0, 300), "has no JPEG picture"},
  };
  for (const auto& row : rows) {
    FileCapture capture(folder.write(row.name, row.bytes));
    EXPECT_EQ(capture.devices->cameras().size(), 2u);
    EXPECT_THAT(capture.start(), HasSubstr(row.text)) << row.name;
  }
  EXPECT_THAT(FileCapture(folder.path("missing.y4m")).start(),
              HasSubstr("No such file or directory"));
  std::filesystem::create_directory(folder.path("folder.mjpg"));
  EXPECT_THAT(FileCapture(folder.path("folder.mjpg")).start(), HasSubstr("is no file"));
}

TEST(FileCamera, EndsWithAFailureWhenItsFileIsEmptied) {
  const TemporaryFolder folder;
  const std::string header = "YUV4MPEG2 W16 H16 F100:1\n";
  std::string frames;
  for (int i = 0; i < 50; ++i) frames += y4mFrame(i, 128, 128, 256, 64);
  const auto path = folder.write("a.y4m", header + frames);
  FileCapture capture(path);
  auto& watcher = capture.watcher;
  ASSERT_EQ(capture.start(), "");
  ASSERT_TRUE(watcher.waitForFrames(2));
  std::filesystem::resize_file(path, 10);
  ASSERT_TRUE(watcher.waitUntil([&] { return !watcher.failures.empty(); }));
  EXPECT_THAT(watcher.failures[0], HasSubstr("can't be read any more"));
  EXPECT_FALSE(capture.capturer->isRunning());
}

}  // namespace
}  // namespace kestrova::test
