#include <kestrova/media/AudioFrameSource.h>
#include <kestrova/media/VideoFrameSource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Lt;

/// Keeps what it is fed, as an encoder that is behind does.
struct KeepingVideoSource final : RTCVideoSource {
  void adaptOutputFormat(int, int, int) override {}
  void onFrame(const VideoFrame& frame) override { frames.push_back(frame); }
  std::vector<VideoFrame> frames;
};

struct KeepingAudioSource final : RTCAudioSource {
  std::map<std::string, std::string> constraints() const override { return {}; }
  void onData(const AudioData& data) override {
    const auto count = static_cast<std::ptrdiff_t>(data.frames) * data.channels;
    blocks.emplace_back(data.samples, data.samples + count);
    if (during) during();
  }
  std::vector<std::vector<std::int16_t>> blocks;
  std::function<void()> during;
};

struct KeepingFactory final : RTCPeerConnectionFactory {
  std::shared_ptr<RTCVideoSource> videoSource() override { return video; }
  std::shared_ptr<RTCAudioSource> audioSource(const std::map<std::string, std::string>&) override {
    return audio;
  }
  std::shared_ptr<RTCVideoTrack> videoTrack(const std::shared_ptr<RTCVideoSource>&,
                                            const std::string& id) override {
    return std::make_shared<ScriptedVideoTrack>(id);
  }
  std::shared_ptr<RTCAudioTrack> audioTrack(const std::shared_ptr<RTCAudioSource>&,
                                            const std::string& id) override {
    return std::make_shared<ScriptedAudioTrack>(id);
  }
  std::shared_ptr<KeepingVideoSource> video = std::make_shared<KeepingVideoSource>();
  std::shared_ptr<KeepingAudioSource> audio = std::make_shared<KeepingAudioSource>();
};

class FrameSourceTest : public testing::Test {
protected:
  FrameSourceTest() {
    auto changed = *Platform::current();
    changed.peerConnectionFactory = [factory = factory] { return factory; };
    Platform::install(std::move(changed));
  }
  TestPlatform platform;
  std::shared_ptr<KeepingFactory> factory = std::make_shared<KeepingFactory>();
  std::vector<VideoFrame>& frames = factory->video->frames;
  std::vector<std::vector<std::int16_t>>& blocks = factory->audio->blocks;
};

// ---- Pictures ----------------------------------------------------------------------------------

constexpr int big = std::numeric_limits<int>::max();
const std::vector<std::uint8_t> bytes(64 * 64, 7);
const auto* px = bytes.data();
constexpr I420View noPlanes{};

TEST_F(FrameSourceTest, refusesPicturesThatMakeNoSenseAndReleasesThemOnce) {
  struct Case {
    const char* what;
    I420View view;
    FrameInfo info;
    PushResult expected;
  };
  const I420View good{px, px, px, 16, 8, 8, 16, 16};
  const Case cases[] = {
      {"nothing", noPlanes, {}, PushResult::noData},
      {"no v", {px, px, nullptr, 16, 8, 8, 16, 16}, {}, PushResult::noData},
      {"no width", {px, px, px, 16, 8, 8, 0, 16}, {}, PushResult::badSize},
      {"negative", {px, px, px, 16, 8, 8, 16, -16}, {}, PushResult::badSize},
      {"too wide", {px, px, px, 8193, 4097, 4097, 8193, 2}, {}, PushResult::badSize},
      {"absurd", {px, px, px, big, big, big, big, big}, {}, PushResult::badSize},
      {"y stride", {px, px, px, 15, 8, 8, 16, 16}, {}, PushResult::badStride},
      {"u stride of an odd width", {px, px, px, 15, 7, 8, 15, 15}, {}, PushResult::badStride},
      {"negative stride", {px, px, px, 16, 8, -8, 16, 16}, {}, PushResult::badStride},
      {"askew", good, {.rotation = 45}, PushResult::badRotation},
      {"full turn", good, {.rotation = 360}, PushResult::badRotation},
      {"other way", good, {.rotation = -90}, PushResult::badRotation},
      {"before time", good, {.timestampUs = -1}, PushResult::badTime},
      {"no clock",
       good,
       {.timestampUs = std::numeric_limits<std::int64_t>::max()},
       PushResult::badTime},
  };
  const auto source = VideoFrameSource::make();
  for (const auto& given : cases) {
    int released = 0;
    EXPECT_EQ(source->push(given.view, given.info, [&] { ++released; }), given.expected)
        << given.what;
    EXPECT_EQ(released, 1) << given.what;
    EXPECT_EQ(source->push(given.view, given.info), given.expected) << given.what;
  }
  EXPECT_TRUE(frames.empty());
  EXPECT_EQ(source->counters().refused, 2 * std::size(cases));

  EXPECT_EQ(source->push(NV12View{px, px, 15, 15, 15, 15}), PushResult::badStride);
  EXPECT_EQ(source->push(NV12View{px, px, 15, 16, 15, 15}), PushResult::accepted);
  EXPECT_EQ(source->push(BGRAView{px, 63, 16, 2}), PushResult::badStride);
  EXPECT_EQ(source->push(BGRAView{px, big, 8193, 2}), PushResult::badSize);
}

TEST_F(FrameSourceTest, timeMustGoOnButRefusedPicturesDontCount) {
  const auto source = VideoFrameSource::make();
  const I420View view{px, px, px, 16, 8, 8, 16, 16};
  EXPECT_EQ(source->push(view, {.timestampUs = 1000}), PushResult::accepted);
  EXPECT_EQ(source->push(view, {.timestampUs = 1000}), PushResult::timeWentBack);
  EXPECT_EQ(source->push(view, {.timestampUs = 9000, .rotation = 1}), PushResult::badRotation);
  EXPECT_EQ(source->push(view, {.timestampUs = 1001, .rotation = 270}), PushResult::accepted);
  EXPECT_EQ(source->push(view), PushResult::accepted) << "now is later";
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[1].timestampUs, 1001);
  EXPECT_EQ(frames[1].rotation, 270);
  const auto now = platform.clock->now().time_since_epoch();
  EXPECT_EQ(frames[2].timestampUs,
            std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

TEST_F(FrameSourceTest, borrowedMemoryIsGivenBackOnceWhenTheLastReaderIsDone) {
  auto source = VideoFrameSource::make();
  int released = 0;
  const auto release = [&] {
    ++released;
    throw std::runtime_error("an application's mistake");
  };
  source->push(I420View{px, px, px, 16, 8, 8, 16, 16}, {}, release);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].buffer->i420().y, px) << "not copied";
  source.reset();
  auto reader = frames[0].buffer;
  frames.clear();
  EXPECT_EQ(released, 0) << "a sink still looks at it";
  reader.reset();
  EXPECT_EQ(released, 1);
}

TEST_F(FrameSourceTest, copiesOfPaddedOddPicturesHoldTheirOwnPixels) {
  constexpr int width = 5, height = 3, stride = 9;
  std::vector<std::uint8_t> y(stride * height, 0xEE), u(stride * 2, 0xEE), v(stride * 2, 0xEE);
  for (int row = 0; row < height; ++row)
    for (int x = 0; x < width; ++x) y[static_cast<std::size_t>(row * stride + x)] = 10;
  for (int row = 0; row < 2; ++row)
    for (int x = 0; x < 3; ++x) {
      u[static_cast<std::size_t>(row * stride + x)] = 20;
      v[static_cast<std::size_t>(row * stride + x)] = 30;
    }
  const auto source = VideoFrameSource::make();
  source->push(I420View{y.data(), u.data(), v.data(), stride, stride, stride, width, height});
  std::fill(y.begin(), y.end(), 0);

  const auto view = frames.at(0).buffer->i420();
  const auto all = [&](const std::uint8_t* plane, int planeStride, int columns, int rows) {
    std::vector<int> values;
    for (int row = 0; row < rows; ++row)
      values.insert(values.end(), plane + row * planeStride, plane + row * planeStride + columns);
    return values;
  };
  EXPECT_THAT(all(view.y, view.strideY, width, height), Each(10));
  EXPECT_THAT(all(view.u, view.strideU, 3, 2), Each(20));
  EXPECT_THAT(all(view.v, view.strideV, 3, 2), Each(30));

  const auto* memory = view.y;
  frames.clear();
  source->push(I420View{y.data(), u.data(), v.data(), stride, stride, stride, width, height});
  EXPECT_EQ(frames.at(0).buffer->i420().y, memory) << "memory is used again";
  source->push(I420View{y.data(), u.data(), v.data(), stride, stride, stride, 4, 2});
  EXPECT_EQ(frames.at(1).buffer->i420().width, 4);
}

TEST_F(FrameSourceTest, nv12StaysNv12AndCanBeReadAsI420) {
  const std::vector<std::uint8_t> y(9, 1);
  const std::vector<std::uint8_t> uv{1, 2, 3, 4, 99, 5, 6, 7, 8, 99};
  const auto source = VideoFrameSource::make();
  source->push(NV12View{y.data(), uv.data(), 3, 5, 3, 3}, {}, [] {});
  const auto buffer = frames.at(0).buffer;
  EXPECT_EQ(buffer->format(), PixelFormat::nv12);
  EXPECT_EQ(buffer->nv12().uv, uv.data());
  const auto view = buffer->i420();
  EXPECT_EQ(view.y, y.data());
  EXPECT_THAT(std::vector<int>(view.u, view.u + 4), ElementsAre(1, 3, 5, 7));
  EXPECT_THAT(std::vector<int>(view.v, view.v + 4), ElementsAre(2, 4, 6, 8));
  EXPECT_EQ(buffer->i420().u, view.u) << "converted once";
  source->push(NV12View{y.data(), uv.data(), 3, 5, 3, 3});
  EXPECT_EQ(frames.at(1).buffer->nv12().strideUV, 4);
  EXPECT_EQ(frames.at(1).buffer->nv12().uv[4], 5);
}

// ---- Sound -------------------------------------------------------------------------------------

class PcmTest : public FrameSourceTest {
protected:
  PushResult push(std::int16_t value, int rate = 16'000, int channels = 1) {
    const std::vector<std::int16_t> samples(static_cast<std::size_t>(rate / 100 * channels), value);
    return source->push({samples.data(), rate, channels, rate / 100});
  }
  /// The first sample of each block that went out, silence left away.
  std::vector<int> heard() const {
    std::vector<int> values;
    for (const auto& block : blocks)
      if (block.front() != 0) values.push_back(block.front());
    return values;
  }
  std::shared_ptr<AudioFrameSource> source = AudioFrameSource::make();
};

TEST_F(PcmTest, refusesBlocksThatAreNotTenMilliseconds) {
  const std::vector<std::int16_t> samples(2000);
  const auto* s = samples.data();
  const std::pair<AudioData, PushResult> cases[] = {
      {{nullptr, 48'000, 1, 480}, PushResult::noData},
      {{s, 0, 1, 0}, PushResult::badSampleRate},
      {{s, 22'050, 1, 220}, PushResult::badSampleRate},
      {{s, 96'000, 1, 960}, PushResult::badSampleRate},
      {{s, -48'000, 1, -480}, PushResult::badSampleRate},
      {{s, 48'000, 0, 480}, PushResult::badChannels},
      {{s, 48'000, 3, 480}, PushResult::badChannels},
      {{s, 48'000, 1, 960}, PushResult::badBlock},
      {{s, 44'100, 2, 442}, PushResult::badBlock},
      {{s, 16'000, 1, big}, PushResult::badBlock},
  };
  for (const auto& [data, expected] : cases)
    EXPECT_EQ(source->push(data), expected) << data.sampleRate << " " << data.frames;
  EXPECT_TRUE(blocks.empty());
  EXPECT_EQ(source->counters().refused, std::size(cases));
  EXPECT_EQ(platform.clock->pending(), 0u) << "nothing to pace";
  EXPECT_EQ(text(PushResult::badBlock), "PCM must come in blocks of 10 ms");
}

TEST_F(PcmTest, aSentencePushedAtOnceGoesOutAtThePaceOfSpeech) {
  for (int i = 1; i <= 100; ++i)
    EXPECT_EQ(push(static_cast<std::int16_t>(i)), PushResult::accepted);
  EXPECT_LE(blocks.size(), 5u) << "a short lead";
  platform.advance(500ms);
  EXPECT_NEAR(static_cast<double>(blocks.size()), 52, 4);
  EXPECT_NEAR(static_cast<double>(source->queued().count()), 480, 40);
  platform.advance(600ms);
  std::vector<int> expected(100);
  std::iota(expected.begin(), expected.end(), 1);
  EXPECT_EQ(heard(), expected) << "all of it, in order";

  push(7);
  for (int i = 0; i < 50; ++i) push(8);
  source->clear();
  EXPECT_EQ(source->queued(), 0ms);
  const auto before = heard().size();
  platform.advance(1s);
  EXPECT_EQ(heard().size(), before) << "silent at once";
}

TEST_F(PcmTest, steadyBlocksGoOutAtOnceWithoutSilenceInBetween) {
  for (int i = 1; i <= 100; ++i) {
    platform.advance(i % 2 ? 3ms : 17ms);  // an unsteady timer
    push(static_cast<std::int16_t>(i));
    EXPECT_EQ(heard().size(), static_cast<std::size_t>(i));
  }
  EXPECT_EQ(blocks.size(), 100u);
}

TEST_F(PcmTest, silenceFillsPausesInTheFormatOfTheLastBlock) {
  platform.advance(1s);
  EXPECT_TRUE(blocks.empty()) << "nothing before the first block";
  push(5, 44'100, 2);
  platform.advance(1s);
  EXPECT_NEAR(static_cast<double>(blocks.size()), 95, 3);
  EXPECT_EQ(blocks.back().size(), 882u);
  EXPECT_THAT(blocks.back(), Each(0));
  push(6, 8'000);
  EXPECT_EQ(blocks.back().size(), 80u) << "sound goes first";
  source.reset();
  platform.advance(1s);
  EXPECT_EQ(platform.clock->pending(), 0u) << "the pacing ends with its source";
}

TEST_F(PcmTest, moreThanTenSecondsAreRefusedAndCounted) {
  int accepted = 0;
  while (push(1) == PushResult::accepted && accepted < 5000) ++accepted;
  EXPECT_NEAR(accepted, 1000, 5);
  EXPECT_EQ(push(2), PushResult::queueFull);
  EXPECT_EQ(source->counters().refused, 2u);
  platform.advance(100ms);
  EXPECT_EQ(push(3), PushResult::accepted) << "there is room again";
  platform.advance(12s);
  EXPECT_EQ(heard().size(), source->counters().accepted);
  EXPECT_EQ(heard().back(), 3);
}

TEST_F(PcmTest, howMuchMayWaitIsChosen) {
  const auto accepted = [&](std::chrono::milliseconds mostQueued) {
    source = AudioFrameSource::make({.mostQueued = mostQueued});
    int count = 0;
    while (push(1, 8'000) == PushResult::accepted && count < 70'000) ++count;
    return count - static_cast<int>(source->queued() / AudioFrameSource::blockTime);
  };
  for (const auto mostQueued : {30ms, 39ms, 2min + 0ms, 10min + 0ms}) {
    EXPECT_LE(accepted(mostQueued), 5) << "a short lead";
    EXPECT_EQ(source->queued(), mostQueued / 10ms * 10ms);
  }
  for (const auto mostQueued : {10min + 10ms, std::chrono::milliseconds::max()}) {
    accepted(mostQueued);
    EXPECT_EQ(source->queued(), 10min);
  }
  for (const auto mostQueued : {0ms, -1ms}) {
    EXPECT_GE(accepted(mostQueued), 1) << "what comes at its time waits for nothing";
    EXPECT_EQ(source->queued(), 0ms);
  }
}

TEST_F(PcmTest, aSynthesiserIsAskedForMoreEachTimeLittleIsLeft) {
  std::vector<std::int64_t> left;
  bool pushing = false;
  source->onLow(200ms, [&] {
    EXPECT_FALSE(pushing);
    left.push_back(source->queued().count());
    if (left.size() <= 3)
      for (int i = 0; i < 50; ++i) push(2);
  });
  for (int i = 0; i < 15; ++i) push(1);
  platform.advance(1s);
  EXPECT_THAT(left, IsEmpty()) << "never had as much";
  pushing = true;
  for (int i = 0; i < 50; ++i) push(1);
  pushing = false;
  platform.advance(300ms);
  EXPECT_THAT(left, ElementsAre(AllOf(Ge(180), Lt(200)))) << "as soon as it is low, and once";
  platform.advance(5s);
  EXPECT_EQ(left.size(), 4u) << "the last call pushed nothing";
  EXPECT_EQ(heard().size(), 15u + 50 + 150);
}

TEST_F(PcmTest, fallingSilentAsksForMoreUnlessNobodyListensAnyMore) {
  int first = 0, second = 0;
  const auto fill = [&] {
    for (int i = 0; i < 50; ++i) push(1);
  };
  fill();
  source->onLow(100ms, [&] {
    ++first;
    fill();
    source->clear();  // falls again
    if (first == 3) source->onLow(100ms, [&] { ++second; });
  });
  platform.pump();
  EXPECT_EQ(first, 0) << "there is enough";
  source->clear();
  EXPECT_EQ(first, 0) << "not from inside";
  platform.pump();
  EXPECT_EQ(first, 3) << "the fall of the third was told for one that is gone";
  EXPECT_EQ(second, 0);
  fill();
  source->clear();
  source->onLow(100ms, nullptr);
  platform.advance(1s);
  EXPECT_EQ(second, 0);
  source->onLow(0ms, [&] { ++second; });
  source->onLow(1min, [&] { ++second; });
  fill();
  platform.advance(1s);
  EXPECT_EQ(second, 0) << "can't be";
}

TEST_F(PcmTest, aCallbackThatThrowsIsReportedAndHarmsNothing) {
  int calls = 0;
  source->onLow(100ms, [&] {
    ++calls;
    throw std::runtime_error("no voice");
  });
  testing::internal::CaptureStderr();
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 30; ++i) push(1);
    platform.advance(1s);
  }
  EXPECT_EQ(calls, 2);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("AudioFrameSource"));
  EXPECT_EQ(heard().size(), 60u);

  auto owned = std::make_shared<int>(1);
  source->onLow(100ms, [owned] {});
  for (int i = 0; i < 30; ++i) push(1);
  source->clear();
  source.reset();
  platform.pump();
  EXPECT_EQ(owned.use_count(), 1) << "goes with the source";
}

TEST_F(PcmTest, oneThreadAtATimeIsInsideTheEngine) {
  std::atomic<int> inside{0};
  factory->audio->during = [&] {
    EXPECT_EQ(++inside, 1);
    if (blocks.size() == 1) {
      // The engine is slow to take the first block; meanwhile more come, and the clock goes on.
      std::thread([&] { push(2); }).join();
      std::thread([&] { platform.advance(100ms); }).join();
    }
    --inside;
  };
  push(1);
  platform.advance(100ms);
  EXPECT_THAT(heard(), ElementsAre(1, 2));
}

}  // namespace
}  // namespace kestrova::test
