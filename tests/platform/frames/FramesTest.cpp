#include <kestrova/media/AudioFrameSource.h>
#include <kestrova/media/VideoFrameSource.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/linux/webrtc/PeerConnectionFactory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace kestrova {
namespace {

using namespace std::chrono_literals;

/// What an encoder would be given: the engine hands it to sinks and encoders alike.
struct Keeper final : VideoSink {
  void onFrame(const VideoFrame& frame) override {
    std::scoped_lock held(lock);
    last = frame;
    ++count;
  }
  VideoFrame take() {
    std::scoped_lock held(lock);
    return std::exchange(last, {});
  }
  std::mutex lock;
  VideoFrame last;
  int count = 0;
};

class EngineFramesTest : public testing::Test {
protected:
  EngineFramesTest() {
    Platform platform;
    platform.background = Runtime::background();
    platform.scheduler = Runtime::scheduler();
    platform.peerConnectionFactory = sharedPeerConnectionFactory;
    Platform::install(std::move(platform));
    source = VideoFrameSource::make();
    track = source->makeStream()->videoTrack();
    keeper = std::make_shared<Keeper>();
    track->addSink(keeper);
  }
  ~EngineFramesTest() override {
    track.reset();
    source.reset();
    // The platform stays: a source of sound may be about to ask it for its next tick.
  }

  /// Sinks join on the engine's own thread: pushes until one arrives.
  template <class View>
  VideoFrame through(const View& view, int rotation = 0) {
    for (const auto until = std::chrono::steady_clock::now() + 60s;
         std::chrono::steady_clock::now() < until;) {
      EXPECT_EQ(source->push(view, {.timestampUs = time += 33'000, .rotation = rotation}),
                PushResult::accepted);
      if (auto frame = keeper->take(); frame.buffer) return frame;
    }
    ADD_FAILURE() << "nothing came through";
    return {};
  }

  std::shared_ptr<VideoFrameSource> source;
  std::shared_ptr<RTCVideoTrack> track;
  std::shared_ptr<Keeper> keeper;
  std::int64_t time = 0;
};

TEST_F(EngineFramesTest, nv12ReachesTheEngineAsItIs) {
  for (const auto& [width, height] : {std::pair{64, 36}, {63, 35}, {1, 1}}) {
    const int row = 2 * ((width + 1) / 2);
    const std::vector<std::uint8_t> y(static_cast<std::size_t>(width * height), 50);
    std::vector<std::uint8_t> uv(static_cast<std::size_t>(row * ((height + 1) / 2)));
    for (std::size_t i = 0; i < uv.size(); ++i) uv[i] = i % 2 ? 200 : 100;
    const auto frame = through(NV12View{y.data(), uv.data(), width, row, width, height}, 90);
    ASSERT_TRUE(frame.buffer);
    EXPECT_EQ(frame.buffer->format(), PixelFormat::nv12);
    EXPECT_EQ(frame.rotation, 90);
    const auto view = frame.buffer->i420();
    ASSERT_EQ(view.width, width);
    ASSERT_EQ(view.height, height);
    EXPECT_EQ(view.y[0], 50);
    EXPECT_EQ(view.u[(width + 1) / 2 - 1], 100);
    EXPECT_EQ(view.v[(width + 1) / 2 - 1], 200);
  }
}

TEST_F(EngineFramesTest, bgraBecomesTheRightColours) {
  struct Colour {
    std::uint8_t b, g, r;
    int y, u, v;  // BT.601, limited range
  };
  constexpr int width = 17, height = 5, stride = 17 * 4 + 12;
  for (const auto& colour : {Colour{0, 0, 255, 82, 90, 240}, Colour{255, 0, 0, 41, 240, 110},
                             Colour{255, 255, 255, 235, 128, 128}}) {
    std::vector<std::uint8_t> pixels(stride * height, 77);
    for (int line = 0; line < height; ++line)
      for (int x = 0; x < width; ++x) {
        auto* pixel = &pixels[static_cast<std::size_t>(line * stride + x * 4)];
        pixel[0] = colour.b, pixel[1] = colour.g, pixel[2] = colour.r, pixel[3] = 0;
      }
    const auto frame = through(BGRAView{pixels.data(), stride, width, height});
    ASSERT_TRUE(frame.buffer);
    const auto view = frame.buffer->i420();
    ASSERT_EQ(view.width, width);
    ASSERT_EQ(view.height, height);
    const auto last = static_cast<std::ptrdiff_t>(height - 1);
    EXPECT_NEAR(view.y[last * view.strideY + width - 1], colour.y, 2);
    EXPECT_NEAR(view.u[last / 2 * view.strideU + width / 2], colour.u, 2);
    EXPECT_NEAR(view.v[last / 2 * view.strideV + width / 2], colour.v, 2);
  }
}

TEST_F(EngineFramesTest, keepingConvertedPicturesStopsNothing) {
  const std::vector<std::uint8_t> pixels(16 * 16 * 4, 200);
  const BGRAView view{pixels.data(), 64, 16, 16};
  std::vector<VideoFrame> kept;
  kept.push_back(through(view));
  // Far more than the engine's pool gives: the rest is left out, and it goes on afterwards.
  for (int i = 0; i < 100; ++i) {
    source->push(view, {.timestampUs = time += 33'000});
    if (auto frame = keeper->take(); frame.buffer) kept.push_back(frame);
  }
  EXPECT_LE(kept.size(), 31u);
  kept.clear();
  EXPECT_TRUE(through(view).buffer);
}

TEST_F(EngineFramesTest, wrappedMemoryIsReleasedOnceTheEngineIsDone) {
  const std::vector<std::uint8_t> plane(64 * 64, 9);
  const I420View view{plane.data(), plane.data(), plane.data(), 64, 32, 32, 64, 64};
  ASSERT_TRUE(through(view).buffer);
  std::atomic<int> released{0};
  source->push(view, {.timestampUs = time += 33'000}, [&] { ++released; });
  auto kept = keeper->take();
  ASSERT_TRUE(kept.buffer);
  EXPECT_EQ(kept.buffer->i420().y, plane.data());
  // The track may keep the last picture; another takes its place.
  ASSERT_TRUE(through(view).buffer);
  EXPECT_EQ(released, 0);
  kept = {};
  EXPECT_EQ(released, 1);
}

TEST_F(EngineFramesTest, everyRateOfSoundGoesThroughAsItIs) {
  struct Ear final : AudioSink {
    void onData(const AudioData& data) override {
      std::scoped_lock held(lock);
      last = {data.sampleRate, data.channels, data.frames, data.samples[0]};
      changed.notify_all();
    }
    std::mutex lock;
    std::condition_variable changed;
    std::array<int, 4> last{};
  };
  const auto voice = AudioFrameSource::make();
  const auto audio = voice->makeStream()->audioTrack();
  const auto ear = std::make_shared<Ear>();
  audio->addSink(ear);
  std::int16_t mark = 0;
  for (const int rate : {8'000, 12'000, 16'000, 24'000, 32'000, 44'100, 48'000})
    for (const int channels : {1, 2}) {
      const std::vector<std::int16_t> samples(static_cast<std::size_t>(rate / 100 * channels),
                                              ++mark);
      const std::array<int, 4> expected{rate, channels, rate / 100, mark};
      std::unique_lock held(ear->lock);
      for (int tries = 0; tries < 500 && ear->last != expected; ++tries) {
        held.unlock();
        voice->push({samples.data(), rate, channels, rate / 100});
        held.lock();
        ear->changed.wait_for(held, 20ms, [&] { return ear->last == expected; });
      }
      EXPECT_EQ(ear->last, expected);
    }
}

// Without waiting for the engine: what is pushed next is what the sinks hear and see.
TEST_F(EngineFramesTest, aTrackThatIsOffIsSilentAtOnce) {
  struct Ear final : AudioSink {
    void onData(const AudioData& data) override {
      heard = data.samples[0];
      if (inside) inside();
    }
    int heard = -1;
    std::function<void()> inside;
  };
  const auto factory = sharedPeerConnectionFactory();
  const auto voice = factory->audioSource({});
  const auto audio = factory->audioTrack(voice, "a");
  const auto second = factory->audioTrack(voice, "b");
  const auto ear = std::make_shared<Ear>();
  const auto other = std::make_shared<Ear>();
  audio->addSink(ear);
  second->addSink(other);
  const std::vector<std::int16_t> samples(160, 1000);
  for (const bool on : {true, false, true}) {
    audio->setEnabled(on);
    voice->onData({samples.data(), 16'000, 1, 160});
    EXPECT_EQ(ear->heard, on ? 1000 : 0);
    EXPECT_EQ(other->heard, 1000) << "the source's other track";
  }
  // No lock is held around a sink: the engine's own thread can take other sinks off meanwhile.
  ear->inside = [&] {
    audio->removeSink(ear);
    const auto fresh = factory->audioTrack(voice, "c");
    fresh->addSink(other);
    audio->setEnabled(false);
  };
  voice->onData({samples.data(), 16'000, 1, 160});
  ear->heard = -1;
  voice->onData({samples.data(), 16'000, 1, 160});
  EXPECT_EQ(ear->heard, -1) << "it went";

  const std::vector<std::uint8_t> plane(64 * 64, 9);
  const I420View view{plane.data(), plane.data(), plane.data(), 64, 32, 32, 64, 64};
  ASSERT_TRUE(through(view).buffer);
  track->setEnabled(false);
  source->push(view, {.timestampUs = time += 33'000});
  EXPECT_FALSE(keeper->take().buffer);
  track->setEnabled(true);
  EXPECT_TRUE(through(view).buffer);
}

}  // namespace
}  // namespace kestrova
