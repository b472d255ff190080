#include <kestrova/platform/linux/capture/CaptureDevices.h>
#include <kestrova/platform/linux/capture/V4l2Device.h>

#include <FakeVideo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CaptureWatcher.h"
#include <cerrno>
#include <future>
#include <thread>

namespace kestrova::test {
namespace {

using testing::HasSubstr;

constexpr const char* kPlain = "/dev/video0 card=Plain bus=usb-1 modes=YUYV:320x240@100 ";

std::shared_ptr<CaptureDevices> devicesWith(const std::string& cameras,
                                            const std::string& which = "default",
                                            const std::string& back = "back|rear|world") {
  fakevideoConfigure(cameras.c_str());
  auto devices = makeCaptureDevices();
  devices->configure({.camera = which, .microphone = "none", .backCameras = back});
  return devices;
}

/// A capturer on the first camera of a description.
struct Capture {
  explicit Capture(const std::string& cameras, const std::string& which = "default")
      : devices(devicesWith(cameras, which)), capturer(devices->makeCameraCapturer()) {
    watcher.attach(*capturer);
    const auto found = devices->cameras();
    if (!found.empty()) camera = found.front();
  }
  ~Capture() { capturer.reset(); }
  std::string start() { return watcher.start(*capturer, camera); }

  CaptureWatcher watcher;
  std::shared_ptr<CaptureDevices> devices;
  std::unique_ptr<RTCCameraVideoCapturer> capturer;
  AVCaptureDevice camera;
};

void expectQuarters(const VideoFrameBuffer& picture, const std::string& what) {
  for (int quarter = 0; quarter < 4; ++quarter) {
    const auto& wanted = kFakeQuarters[static_cast<std::size_t>(quarter)];
    const auto seen = quarterColour(picture, quarter);
    EXPECT_NEAR(seen[0], wanted.y, 3) << what << ", Y of quarter " << quarter;
    EXPECT_NEAR(seen[1], wanted.u, 3) << what << ", U of quarter " << quarter;
    EXPECT_NEAR(seen[2], wanted.v, 3) << what << ", V of quarter " << quarter;
  }
}

std::vector<std::string> positions(const std::vector<AVCaptureDevice>& cameras) {
  std::vector<std::string> found;
  for (const auto& camera : cameras)
    found.push_back(camera.uniqueId +
                    (camera.position == CameraPosition::front ? " front" : " back"));
  return found;
}

TEST(CameraList, KnowsCamerasByWhereTheyAreConnected) {
  const std::string twins =
      "/dev/video4 card=Twin bus=usb-2 modes=YUYV:640x480@30;"
      "/dev/video0 card=Twin bus=usb-1 modes=YUYV:640x480@30;"
      "/dev/video1 card=Twin bus=usb-1 kind=metadata;"
      "/dev/video2 card=Twin bus=usb-1 modes=NV12:640x480@30;"
      "/dev/video3 card=Depth bus=usb-1 modes=Z16_:640x480@30";
  EXPECT_THAT(positions(devicesWith(twins)->cameras()),
              testing::ElementsAre("usb-1 front", "usb-1#2 front", "usb-2 front"));
  const std::string renumbered =
      "/dev/video7 card=Twin bus=usb-1 modes=YUYV:640x480@30;"
      "/dev/video0 card=Twin bus=usb-2 modes=YUYV:640x480@30";
  auto devices = devicesWith(renumbered, "usb-1");
  EXPECT_THAT(positions(devices->cameras()), testing::ElementsAre("usb-1 front"));
  devices->configure({.camera = "/dev/video0"});
  EXPECT_THAT(positions(devices->cameras()), testing::ElementsAre("usb-2 front"));
  EXPECT_EQ(devicesWith("/dev/video0 card=A\xc3 modes=YUYV:640x480@30")->cameras()[0].localizedName,
            "A")
      << "a name that was cut off within a character";
}

TEST(CameraList, TellsFrontFromBack) {
  const std::string three =
      "/dev/video0 card=World_Facing bus=a modes=YUYV:640x480@30;"
      "/dev/video1 card=User bus=b modes=YUYV:640x480@30;"
      "/dev/video2 card=Other bus=REAR-1 modes=YUYV:640x480@30";
  const struct {
    const char* expression;
    std::vector<std::string> wanted;
  } rows[] = {
      {"back|rear|world", {"a back", "b front", "REAR-1 back"}},
      {"^user$", {"a front", "b back", "REAR-1 front"}},
      {"(", {"a back", "b front", "REAR-1 back"}},
      {"", {"a front", "b front", "REAR-1 front"}},
      {".", {"a front", "b back", "REAR-1 back"}},
  };
  for (const auto& row : rows)
    EXPECT_EQ(positions(devicesWith(three, "default", row.expression)->cameras()), row.wanted)
        << row.expression;
  EXPECT_THAT(positions(devicesWith(three, "a")->cameras()), testing::ElementsAre("a front"));
}

TEST(CameraList, ChoosesTheFormat) {
  const struct {
    const char* modes;
    CaptureFormat wanted;
  } rows[] = {
      {"YUYV:640x480@30,YUYV:1280x720@10", {640, 480, 30}},
      {"YUYV:1280x720@10,MJPG:1280x720@30,MJPG:1920x1080@30", {1280, 720, 30}},
      {"MJPG:1280x720@60", {1280, 720, 30}},
      {"MJPG:3840x2160@30,MJPG:1920x1080@30", {1920, 1080, 30}},
      {"YUYV:1280x720@5", {1280, 720, 5}},
  };
  for (const auto& row : rows) {
    const auto cameras = devicesWith(std::string("/dev/video0 modes=") + row.modes)->cameras();
    ASSERT_EQ(cameras.size(), 1u) << row.modes;
    EXPECT_EQ(cameras[0].activeFormat.width, row.wanted.width) << row.modes;
    EXPECT_EQ(cameras[0].activeFormat.height, row.wanted.height) << row.modes;
    EXPECT_EQ(cameras[0].activeFormat.fps, row.wanted.fps) << row.modes;
  }
  const std::vector<CameraMode> equal{{V4L2_PIX_FMT_MJPEG, 640, 480, 30},
                                      {V4L2_PIX_FMT_YUYV, 640, 480, 30}};
  EXPECT_EQ(chooseMode(equal, {640, 480, 30})->fourcc, V4L2_PIX_FMT_YUYV) << "costs less";
  EXPECT_FALSE(chooseMode({}, {640, 480, 30}));
}

TEST(CameraList, IsDeniedOnlyWhenNoneMayBeOpened) {
  const std::string closed = "/dev/video0 open=" + std::to_string(EACCES) + " ";
  const std::string open = ";/dev/video1 modes=YUYV:640x480@30";
  EXPECT_EQ(devicesWith("")->cameraAuthorization(), AuthorisationStatus::authorized);
  EXPECT_EQ(devicesWith(closed)->cameraAuthorization(), AuthorisationStatus::denied);
  EXPECT_EQ(devicesWith(closed + open)->cameraAuthorization(), AuthorisationStatus::authorized);
  EXPECT_EQ(devicesWith(closed + open, "/dev/video0")->cameraAuthorization(),
            AuthorisationStatus::denied);
  EXPECT_EQ(devicesWith(closed, "none")->cameraAuthorization(), AuthorisationStatus::authorized);
}

TEST(Camera, PicturesOfEveryFormatArriveWhole) {
  for (const char* format : {"YUYV", "UYVY", "NV12", "YU12", "MJPG"})
    for (const int pad : {0, 64}) {
      const auto what = format + std::string(" with padding ") + std::to_string(pad);
      Capture capture("/dev/video0 modes=" + std::string(format) +
                      ":322x242@100 pad=" + std::to_string(pad));
      ASSERT_EQ(capture.start(), "") << what;
      EXPECT_TRUE(capture.capturer->isRunning());
      ASSERT_TRUE(capture.watcher.waitForFrames(3)) << what;
      ASSERT_TRUE(capture.watcher.stop(*capture.capturer));
      const auto& frames = capture.watcher.frames;
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      const auto age = now - std::chrono::microseconds(frames[0].timestampUs);
      EXPECT_TRUE(age.count() > 0 && age < kPatience) << what;
      EXPECT_GT(frames[1].timestampUs, frames[0].timestampUs) << what;
      const auto picture = frames.front().buffer;
      EXPECT_EQ(picture->i420().width, 322) << what;
      EXPECT_EQ(picture->i420().height, 242) << what;
      expectQuarters(*picture, what);
    }
  EXPECT_EQ(fakevideoOpenHandles(), 0);
}

TEST(Camera, CutOffPicturesArePassedOver) {
  Capture capture("/dev/video0 modes=MJPG:320x240@100 corrupt=2");
  ASSERT_EQ(capture.start(), "");
  ASSERT_TRUE(capture.watcher.waitForFrames(5));
  ASSERT_TRUE(capture.watcher.stop(*capture.capturer));
  for (const auto& frame : capture.watcher.frames) expectQuarters(*frame.buffer, "MJPG");
  EXPECT_TRUE(capture.watcher.failures.empty());
}

TEST(Camera, TellsOnceWhyItEnds) {
  const struct {
    const char* fault;
    int frames;
    const char* text;
  } rows[] = {{"unplug=5", 5, "/dev/video0 was unplugged"},
              {"stall=5", 5, "/dev/video0 stopped delivering pictures"},
              {"corrupt=1", 0, "/dev/video0 delivers no undamaged pictures any more"}};
  for (const auto& row : rows) {
    Capture capture("/dev/video0 modes=MJPG:320x240@100 " + std::string(row.fault));
    auto& watcher = capture.watcher;
    ASSERT_EQ(capture.start(), "") << row.fault;
    ASSERT_TRUE(watcher.waitUntil([&] { return !watcher.failures.empty(); })) << row.fault;
    EXPECT_FALSE(capture.capturer->isRunning());
    EXPECT_THAT(watcher.failures[0], HasSubstr(row.text));
    EXPECT_LE(watcher.frameCount, row.frames) << row.fault;
    EXPECT_EQ(fakevideoOpenHandles(), 0) << "the device is let go before anyone is told";
    // It is plugged in again, with another number.
    fakevideoConfigure("/dev/video3 modes=YUYV:320x240@100");
    ASSERT_EQ(capture.start(), "") << row.fault;
    ASSERT_TRUE(watcher.waitForFrames(row.frames + 2)) << row.fault;
    ASSERT_TRUE(watcher.stop(*capture.capturer));
    EXPECT_EQ(watcher.failures.size(), 1u) << row.fault;
  }
}

TEST(Camera, TellsWhyItDoesNotStart) {
  const struct {
    std::string fault;
    const char* text;
  } rows[] = {{"busy=1", "in use by another program"},
              {"give=H264", "delivers pictures as 'H264', which can't be read"},
              {"open=" + std::to_string(EBUSY), "in use by another program"},
              {"open=" + std::to_string(EACCES), "no permission"},
              {"kind=metadata", "is no camera"}};
  for (const auto& row : rows) {
    Capture capture(kPlain + row.fault, "/dev/video0");
    EXPECT_THAT(capture.start(), HasSubstr(row.text));
    EXPECT_FALSE(capture.capturer->isRunning());
    EXPECT_TRUE(capture.watcher.failures.empty()) << "it never began";
    EXPECT_EQ(fakevideoOpenHandles(), 0);
  }
  Capture capture(kPlain);
  fakevideoConfigure("");
  EXPECT_THAT(capture.start(), HasSubstr("there is no such camera: usb-1"));
  EXPECT_TRUE(devicesWith("", "/dev/video9")->cameras().empty());
}

TEST(Camera, AStartThatHangsBlocksNobody) {
  Capture capture(kPlain + std::string("hang=1"));
  auto& watcher = capture.watcher;
  const auto begun = std::chrono::steady_clock::now();
  capture.capturer->startCapture(capture.camera, capture.camera.activeFormat, 30,
                                 watcher.started());
  while (fakevideoOpenHandles() == 0) std::this_thread::yield();
  capture.capturer->stopCapture(watcher.stopped());
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_FALSE(capture.capturer->isRunning());
  EXPECT_FALSE(
      watcher.waitUntil([&] { return !watcher.starts.empty(); }, std::chrono::milliseconds(50)));
  // Should it hang no more, it ends as a start that was stopped.
  do fakevideoRelease();  // the device may have been opened only now
  while (!watcher.waitUntil([&] { return watcher.stops == 1; }, std::chrono::milliseconds(20)));
  ASSERT_EQ(watcher.starts.size(), 1u);
  EXPECT_THAT(watcher.starts[0], HasSubstr("stopped before it began"));
  EXPECT_EQ(watcher.frameCount, 0);

  // Released while it hangs: nobody is called any more.
  ASSERT_EQ(fakevideoOpenHandles(), 0);
  capture.capturer->startCapture(capture.camera, capture.camera.activeFormat, 30,
                                 watcher.started());
  while (fakevideoOpenHandles() == 0) std::this_thread::yield();
  capture.capturer.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(30));
  while (fakevideoOpenHandles() > 0) {
    fakevideoRelease();
    std::this_thread::yield();
  }
  EXPECT_EQ(watcher.starts.size(), 1u);
}

TEST(Camera, StartsAgainAndAgain) {
  Capture capture(
      "/dev/video0 bus=a modes=YUYV:320x240@100;/dev/video1 bus=b modes=MJPG:160x120@100");
  auto& watcher = capture.watcher;
  const auto cameras = capture.devices->cameras();
  ASSERT_EQ(cameras.size(), 2u);
  // Without waiting for anything in between; only the last one is left.
  for (int i = 0; i < 10; ++i) {
    const auto& camera = cameras[static_cast<std::size_t>(i % 2)];
    capture.capturer->startCapture(camera, camera.activeFormat, 100, watcher.started());
    if (i % 3 == 0) capture.capturer->stopCapture(watcher.stopped());
    if (i % 4 == 0) watcher.waitUntil([] { return false; }, std::chrono::milliseconds(3));
  }
  EXPECT_EQ(watcher.start(*capture.capturer, cameras[1]), "");
  ASSERT_TRUE(watcher.waitUntil([&] {
    return !watcher.frames.empty() && watcher.frames.back().buffer->i420().width == 160;
  }));
  ASSERT_TRUE(watcher.waitUntil([&] { return watcher.starts.size() == 10 && watcher.stops == 4; }));
  ASSERT_TRUE(watcher.stop(*capture.capturer));
  const auto count = watcher.frameCount;
  EXPECT_EQ(fakevideoOpenHandles(), 0);
  EXPECT_FALSE(
      watcher.waitUntil([&] { return watcher.frameCount > count; }, std::chrono::milliseconds(50)));
  EXPECT_TRUE(watcher.failures.empty());
}

TEST(Camera, MayBeStoppedAndReleasedFromItsHandlers) {
  auto devices = devicesWith(kPlain + std::string("unplug=3"));
  const auto camera = devices->cameras().front();
  for (const std::string where : {"frame", "failure", "completion"}) {
    auto capturer = devices->makeCameraCapturer();
    std::promise<void> gone;
    auto once = std::make_shared<std::once_flag>();
    const auto let = [&, once] {
      std::call_once(*once, [&] {
        capturer.reset();
        gone.set_value();
      });
    };
    auto* const raw = capturer.get();
    raw->onFrame([&, let](const VideoFrame&) {
      if (where == "frame") let();
    });
    raw->onFailure([&, let](const std::string&) {
      if (where == "failure") let();
    });
    raw->startCapture(camera, camera.activeFormat, 100, [&, let](const std::string&) {
      if (where == "completion") let();
    });
    ASSERT_EQ(gone.get_future().wait_for(kPatience), std::future_status::ready) << where;
    while (fakevideoOpenHandles() > 0) std::this_thread::yield();
  }
}

}  // namespace
}  // namespace kestrova::test
