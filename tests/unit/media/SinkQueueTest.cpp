#include <kestrova/platform/WrappedBuffers.h>
#include <kestrova/session/MediaStream.h>

#include <boost/asio/thread_pool.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class Base, class Sink>
class LoudTrack final : public Base {
public:
  std::string id() const override { return "t"; }
  bool isEnabled() const override { return true; }
  void setEnabled(bool) override {}
  void addSink(const std::shared_ptr<Sink>& sink) override {
    removeSink(sink);
    sinks.push_back(sink);
  }
  void removeSink(const std::shared_ptr<Sink>& sink) override {
    std::erase_if(sinks,
                  [&](const auto& other) { return other.expired() || other.lock() == sink; });
  }
  template <class Call>
  void emit(const Call& call) {
    const auto now = sinks;
    for (const auto& sink : now)
      if (const auto live = sink.lock()) call(*live);
  }
  std::vector<std::weak_ptr<Sink>> sinks;
};
using LoudVideoTrack = LoudTrack<RTCVideoTrack, VideoSink>;
using LoudAudioTrack = LoudTrack<RTCAudioTrack, AudioSink>;

std::shared_ptr<MediaStream> streamOf(TestPlatform& platform,
                                      std::shared_ptr<RTCMediaStreamTrack> track) {
  return std::make_shared<MediaStream>(std::make_shared<ScriptedProducer>(
      platform.media, "p", ProducerOptions{.track = std::move(track)}));
}

struct Watching final : VideoSink {
  void onFrame(const VideoFrame& frame) override {
    seen.push_back(frame.timestampUs);
    if (during) during();
  }
  std::vector<std::int64_t> seen;
  std::function<void()> during;
};

struct Listening final : AudioSink {
  void onData(const AudioData& data) override {
    EXPECT_EQ(data.samples[data.frames * data.channels - 1], data.samples[0]);
    seen.push_back(data.samples[0]);
  }
  std::vector<int> seen;
};

class SinkTest : public testing::Test {
protected:
  void show(std::int64_t timestampUs) {
    const VideoFrame frame{std::make_shared<I420Buffer>(2, 2), timestampUs, 0};
    videoTrack->emit([&](VideoSink& sink) { sink.onFrame(frame); });
  }
  void sound(std::int16_t value, int rate = 48'000, int channels = 2) {
    const std::vector<std::int16_t> samples(static_cast<std::size_t>(rate / 100 * channels), value);
    audioTrack->emit([&](AudioSink& sink) {
      sink.onData({samples.data(), rate, channels, rate / 100});
    });
  }
  TestPlatform platform;
  std::shared_ptr<LoudVideoTrack> videoTrack = std::make_shared<LoudVideoTrack>();
  std::shared_ptr<LoudAudioTrack> audioTrack = std::make_shared<LoudAudioTrack>();
  std::shared_ptr<MediaStream> video = streamOf(platform, videoTrack);
  std::shared_ptr<MediaStream> audio = streamOf(platform, audioTrack);
  std::shared_ptr<Watching> watching = std::make_shared<Watching>();
  std::shared_ptr<Listening> listening = std::make_shared<Listening>();
};

TEST_F(SinkTest, aSlowSinkGetsTheNewestPicturesAndTheRestIsCounted) {
  const auto handle = video->addSink(watching);
  for (int i = 1; i <= 10; ++i) show(i);
  EXPECT_THAT(watching->seen, IsEmpty()) << "not on the engine's thread";
  platform.pump();
  EXPECT_THAT(watching->seen, ElementsAre(8, 9, 10));
  EXPECT_EQ(handle->counters().delivered, 3u);
  EXPECT_EQ(handle->counters().dropped, 7u);
  show(11);
  platform.pump();
  EXPECT_EQ(watching->seen.back(), 11);
}

TEST_F(SinkTest, soundKeepsTheLastHalfSecondWhateverItsFormat) {
  const auto handle = audio->addSink(listening);
  for (int i = 1; i <= 60; ++i)
    sound(static_cast<std::int16_t>(i), i % 2 ? 8'000 : 48'000, 1 + i % 2);
  sound(61, 96'000, 4);
  platform.pump();
  ASSERT_EQ(listening->seen.size(), 50u);
  EXPECT_EQ(listening->seen.front(), 12);
  EXPECT_EQ(listening->seen.back(), 61);
  EXPECT_EQ(handle->counters().dropped, 11u);
  audioTrack->emit([](AudioSink& sink) { sink.onData({}); });
  platform.pump();
  EXPECT_EQ(listening->seen.size(), 50u) << "an empty block is none";
}

TEST_F(SinkTest, aSinkMayRemoveItselfAndIsNotCalledAgain) {
  std::shared_ptr<SinkHandle> handle;
  watching->during = [&] { handle->remove(); };
  handle = video->addSink(watching);
  for (int i = 1; i <= 3; ++i) show(i);
  platform.pump();
  show(4);
  platform.pump();
  EXPECT_THAT(watching->seen, ElementsAre(1));
  EXPECT_THAT(videoTrack->sinks, IsEmpty());
  EXPECT_EQ(handle->counters().delivered, 1u);

  watching->during = nullptr;
  const auto again = video->addSink(watching);
  EXPECT_NE(again, handle);
  show(5);
  platform.pump();
  EXPECT_EQ(watching->seen.back(), 5) << "it may come back";
}

TEST_F(SinkTest, aRemovedSinkLetsGoOfWaitingPicturesAtOnce) {
  const auto handle = video->addSink(watching);
  bool released = false;
  {
    const std::vector<std::uint8_t> plane(4);
    const I420View view{plane.data(), plane.data(), plane.data(), 2, 1, 1, 2, 2};
    const VideoFrame frame{// The application's release may itself use the stream.
                           std::make_shared<WrappedI420Buffer>(
                               view, [&] { released = video->addSink(watching) != nullptr; }),
                           1, 0};
    videoTrack->emit([&](VideoSink& sink) { sink.onFrame(frame); });
  }
  handle->remove();
  EXPECT_TRUE(released);
  platform.pump();
  EXPECT_THAT(watching->seen, IsEmpty());
}

TEST_F(SinkTest, aSinkThatThrowsIsCountedAndCalledAgain) {
  watching->during = [&] {
    if (watching->seen.size() % 2) throw std::runtime_error("x");
  };
  const auto handle = video->addSink(watching);
  for (int i = 0; i < 4; ++i) {
    show(i);
    platform.pump();
  }
  EXPECT_EQ(watching->seen.size(), 4u);
  EXPECT_EQ(handle->counters().failed, 2u);
  EXPECT_EQ(handle->counters().delivered, 2u);
}

TEST_F(SinkTest, sinksAreHeldWeaklyAndOnce) {
  EXPECT_EQ(video->addSink(watching), video->addSink(watching));
  EXPECT_EQ(videoTrack->sinks.size(), 1u);
  EXPECT_EQ(video->addSink(listening), nullptr) << "of the other medium";
  EXPECT_EQ(video->addSink(std::shared_ptr<VideoSink>()), nullptr);
  show(1);
  watching.reset();
  platform.pump();
  EXPECT_THAT(videoTrack->sinks, IsEmpty()) << "the queue leaves with its sink";

  const auto other = std::make_shared<Watching>();
  const auto handle = video->addSink(other);
  show(2);
  video.reset();
  platform.pump();
  handle->remove();
  EXPECT_THAT(other->seen, ElementsAre(2));
}

/// On real threads: the engine goes on while a sink stands still, and never calls it twice at once.
TEST(SinkThreadsTest, aBlockedSinkHoldsUpNothing) {
  boost::asio::thread_pool pool(2);
  TestPlatform platform;
  auto changed = *Platform::current();
  changed.background = pool.get_executor();
  Platform::install(std::move(changed));
  const auto track = std::make_shared<LoudVideoTrack>();
  const auto stream = streamOf(platform, track);

  std::mutex lock;
  std::condition_variable changes;
  bool entered = false, open = false;
  int inside = 0;
  const auto sink = std::make_shared<Watching>();
  sink->during = [&] {
    std::unique_lock held(lock);
    EXPECT_EQ(++inside, 1);
    entered = true;
    changes.notify_all();
    changes.wait(held, [&] { return open; });
    --inside;
  };
  const auto handle = stream->addSink(sink);
  const VideoFrame frame{std::make_shared<I420Buffer>(2, 2), 1, 0};
  const auto engine = [&] { track->emit([&](VideoSink& each) { each.onFrame(frame); }); };
  engine();
  {
    std::unique_lock held(lock);
    changes.wait(held, [&] { return entered; });
  }
  for (int i = 0; i < 1000; ++i) engine();
  EXPECT_EQ(handle->counters().dropped, 997u);
  {
    std::scoped_lock held(lock);
    open = true;
    changes.notify_all();
  }
  pool.join();
  EXPECT_EQ(handle->counters().delivered, 4u);
}

}  // namespace
}  // namespace kestrova::test
