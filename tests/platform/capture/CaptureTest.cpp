#include <kestrova/platform/linux/capture/CaptureDevices.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <FakeVideo.h>
#include <gtest/gtest.h>

#include "CaptureWatcher.h"
#include <cmath>
#include <cstring>

namespace kestrova::test {
namespace {

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
