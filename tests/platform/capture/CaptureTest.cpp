#include <kestrova/platform/linux/capture/CaptureDevices.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <FakeVideo.h>
#include <gtest/gtest.h>

#include "CaptureWatcher.h"
#include <cmath>
#include <cstring>
#include <numbers>
#include <set>

namespace kestrova::test {
namespace {

constexpr std::int64_t kTime = 1'795'382'400'123;

/// Averages the pixels that fall together, as an encoder's scaler would.
I420Buffer scaled(const I420View& from, int width, int height) {
  I420Buffer to(width, height);
  const auto plane = [](const std::uint8_t* in, int stride, int w, int h, std::uint8_t* out, int ow,
                        int oh) {
    for (int y = 0; y < oh; ++y)
      for (int x = 0; x < ow; ++x) {
        const int x0 = x * w / ow, x1 = std::max(x0 + 1, (x + 1) * w / ow);
        const int y0 = y * h / oh, y1 = std::max(y0 + 1, (y + 1) * h / oh);
        int sum = 0;
        for (int j = y0; j < y1; ++j)
          for (int i = x0; i < x1; ++i) sum += in[j * stride + i];
        out[y * ow + x] = static_cast<std::uint8_t>(sum / ((x1 - x0) * (y1 - y0)));
      }
  };
  plane(from.y, from.strideY, from.width, from.height, to.mutableY(), width, height);
  return to;
}

TEST(TestPicture, ClockIsReadBackAtEverySize) {
  I420Buffer full(1280, 720);
  drawTestPicture(full, kTime, 7, "Test Picture (back)");
  EXPECT_EQ(readTestPictureClock(full.i420()), kTime);
  const std::pair<int, int> sizes[] = {{960, 540}, {640, 360}, {479, 269},
                                       {320, 180}, {213, 121}, {160, 90}};
  for (const auto& [width, height] : sizes) {
    auto small = scaled(full.i420(), width, height);
    EXPECT_EQ(readTestPictureClock(small.i420()), kTime) << width << "x" << height;
    auto blurred = scaled(scaled(small.i420(), width * 3 / 4, height * 3 / 4).i420(), 640, 360);
    EXPECT_EQ(readTestPictureClock(blurred.i420()), kTime) << width << "x" << height << " and back";
  }
  for (const std::int64_t time :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{0xFFFFFFFFFF}, (std::int64_t{1} << 44) - 1})
    for (const auto& [width, height] :
         {std::pair{TestPicture::kSmallestWidth, TestPicture::kSmallestHeight}, std::pair{320, 180},
          std::pair{401, 301}}) {
      I420Buffer picture(width, height);
      drawTestPicture(picture, time, 0, "");
      EXPECT_EQ(readTestPictureClock(picture.i420()), time) << width << "x" << height;
    }
}

TEST(TestPicture, NoClockIsReadWhereThereIsNone) {
  I420Buffer blank(640, 360);
  EXPECT_FALSE(readTestPictureClock(blank.i420()));
  EXPECT_FALSE(readTestPictureClock({}));
  EXPECT_FALSE(readTestPictureClock(I420Buffer(40, 20).i420()));
  I420Buffer picture(640, 360);
  drawTestPicture(picture, kTime, 0, "x");
  // Any one damaged block is noticed.
  for (int column = 0; column < 26; ++column) {
    I420Buffer damaged = picture;
    for (int row = 302; row < 328; ++row)
      for (int x = 640 * column / 26; x < 640 * (column + 1) / 26; ++x) {
        auto& pixel = damaged.mutableY()[row * 640 + x];
        pixel = pixel > 128 ? 16 : 235;
      }
    EXPECT_FALSE(readTestPictureClock(damaged.i420())) << column;
  }
}

std::shared_ptr<CaptureDevices> patternDevices() {
  auto devices = makeCaptureDevices();
  devices->configure({.camera = "pattern", .microphone = "tone", .toneHz = 1000});
  return devices;
}

TEST(PatternCamera, DeliversAtItsRate) {
  auto devices = patternDevices();
  const auto cameras = devices->cameras();
  ASSERT_EQ(cameras.size(), 2u);
  EXPECT_EQ(cameras[0].localizedName, "Test Picture");
  EXPECT_EQ(cameras[0].position, CameraPosition::front);
  EXPECT_EQ(cameras[1].localizedName, "Test Picture (back)");
  EXPECT_EQ(cameras[1].position, CameraPosition::back);
  auto capturer = devices->makeCameraCapturer();
  CaptureWatcher watcher;
  std::string error = "never called";
  const auto start = [&](const AVCaptureDevice& camera, CaptureFormat format) {
    capturer->startCapture(camera, format, 30, [&](const std::string& text) { error = text; });
  };
  start(cameras[0], cameras[0].activeFormat);
  EXPECT_EQ(error, "nobody takes the pictures");
  watcher.attach(*capturer);
  start({.uniqueId = "other"}, cameras[0].activeFormat);
  EXPECT_NE(error, "");
  start(cameras[0], {-1, 1 << 20, 30});
  EXPECT_NE(error, "");
  EXPECT_FALSE(capturer->isRunning());
  start(cameras[0], cameras[0].activeFormat);
  EXPECT_EQ(error, "");
  ASSERT_TRUE(watcher.waitForFrames(31));
  watcher.waitUntil([&] {
    const auto& frames = watcher.frames;
    const auto first = frames[0].buffer->i420(), second = frames[1].buffer->i420();
    EXPECT_EQ(first.width, 1280);
    EXPECT_TRUE(readTestPictureClock(first));
    EXPECT_NE(std::memcmp(first.y, second.y, 1280 * 720), 0) << "it moves";
    const auto spanUs = frames[30].timestampUs - frames[0].timestampUs;
    EXPECT_NEAR(static_cast<double>(spanUs), 1e6, 250e3) << "30 intervals at 30 a second";
    return true;
  });
  start(cameras[1], {320, 180, 30});  // switching while it runs
  EXPECT_TRUE(watcher.waitUntil([&] { return watcher.frames.back().buffer->i420().width == 320; }));
  capturer.reset();
}

TEST(PatternCamera, DrawsIntoAFewBuffers) {
  auto devices = patternDevices();
  auto capturer = devices->makeCameraCapturer();
  std::set<const void*> buffers;
  std::promise<void> enough;
  capturer->onFrame([&, count = 0](const VideoFrame& frame) mutable {
    buffers.insert(frame.buffer.get());
    if (++count == 30) enough.set_value();
  });
  capturer->startCapture(devices->cameras()[0], {320, 180, 120}, 120, {});
  EXPECT_EQ(enough.get_future().wait_for(kPatience), std::future_status::ready);
  capturer.reset();
  EXPECT_LE(buffers.size(), 4u);
}

TEST(PatternCamera, StopsAtOnceFromAnywhere) {
  auto devices = patternDevices();
  const auto camera = devices->cameras().front();
  auto capturer = devices->makeCameraCapturer();
  capturer->stopCapture({});  // not running: nothing to do
  std::atomic<int> late{0};
  std::atomic<bool> stopped{false};
  std::promise<void> done;
  std::once_flag once;
  capturer->onFrame([&](const VideoFrame&) {
    if (stopped) ++late;
    std::call_once(once, [&] {
      capturer->stopCapture([&] {
        stopped = true;
        done.set_value();
      });
    });
  });
  capturer->startCapture(camera, {320, 180, 120}, 120, {});
  ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_FALSE(capturer->isRunning());
  capturer->startCapture(camera, {320, 180, 120}, 120, {});
  capturer->stopCapture({});
  // The whole capturer goes from within its own handler.
  auto own = devices->makeCameraCapturer();
  std::promise<void> released;
  std::once_flag release;
  auto* raw = own.get();
  raw->onFrame([&](const VideoFrame&) {
    std::call_once(release, [&] {
      own.reset();
      released.set_value();
    });
  });
  raw->startCapture(camera, {320, 180, 30}, 30, {});
  ASSERT_EQ(released.get_future().wait_for(kPatience), std::future_status::ready);
  capturer.reset();
  EXPECT_EQ(late, 0);
}

TEST(ToneMicrophone, IsAPureSine) {
  auto devices = patternDevices();
  auto microphone = devices->makeMicrophoneCapturer();
  auto ear = std::make_shared<Ear>();
  EXPECT_FALSE(microphone->start(nullptr));
  ASSERT_TRUE(microphone->start(ear) && ear->waitFor(48000));
  microphone->stop();
  const auto count = ear->samples.size();
  EXPECT_TRUE(ear->rate == 48000 && ear->channels == 1 && ear->wrong == 0);
  double worst = 0;
  for (std::size_t i = 0; i < count; ++i)
    worst =
        std::max(worst, std::abs(ear->samples[i] - 0.25 * 32767 *
                                                       std::sin(2 * std::numbers::pi * 1000 *
                                                                static_cast<double>(i) / 48000)));
  EXPECT_LT(worst, 2) << "a step between two deliveries";
  microphone.reset();
  EXPECT_EQ(ear->samples.size(), count);
}

TEST(CaptureDevices, HaveNothingWhereNothingIs) {
  fakevideoConfigure("");
  ::setenv("PULSE_SERVER", "unix:/nonexistent", 1);
  auto devices = makeCaptureDevices();
  for (const char* which : {"default", "none", "nonsense"}) {
    devices->configure({.camera = which, .microphone = which});
    EXPECT_TRUE(devices->cameras().empty());
    EXPECT_EQ(devices->makeMicrophoneCapturer(), nullptr);
    std::string error;
    auto capturer = devices->makeCameraCapturer();
    capturer->startCapture({}, {640, 480, 30}, 30, [&](const std::string& text) { error = text; });
    EXPECT_NE(error, "");
    bool stopped = false;
    capturer->stopCapture([&] { stopped = true; });
    EXPECT_TRUE(stopped);
  }
  for (const double hz : {0.0, -1.0, 1e9, std::nan("")}) {
    devices->configure({.camera = "none", .microphone = "tone", .toneHz = hz});
    EXPECT_FALSE(devices->makeMicrophoneCapturer()->start(std::make_shared<Ear>()));
  }
}

}  // namespace
}  // namespace kestrova::test
