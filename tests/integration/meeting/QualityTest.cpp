#include "MeetingFixture.h"
#include <atomic>

namespace kestrova::test {
namespace {

class QualityTest : public MeetingFixture {
protected:
  static constexpr double tone = 550;
};

TEST_F(QualityTest, NumbersComeEveryTwoSecondsFromEveryStream) {
  const auto ada = joinSmall("ada", tone);
  const auto grace = joinToWatch("grace");
  ASSERT_TRUE(grace->getsMedia(tone)) << grace->story();
  const auto moving = [](const StreamMetrics& now) {
    return now.framesPerSecond > 10 && now.bitrateKbps > 10 && now.width == 320 &&
           now.codec == "video/VP8" && now.roundTripMs;
  };
  const auto received = grace->stream("ada", MediaType::video);
  EXPECT_TRUE(grace->waitUntil([&] { return moving(received->metrics()); }));
  const auto heard = grace->stream("ada", MediaType::audio);
  EXPECT_TRUE(grace->waitUntil([&] { return heard->metrics().audioLevel.value_or(0) > 0.05; }));
  for (const auto& [id, stream] : ada->meeting->localParticipant()->streams()) {
    const bool isVideo = stream->kind() == MediaType::video;
    EXPECT_TRUE(ada->waitUntil([&] {
      const auto now = stream->metrics();
      return isVideo ? moving(now) : now.bitrateKbps > 5 && now.codec == "audio/opus";
    })) << text(stream->kind());
  }

  std::atomic<int> looks{0};
  std::atomic<std::int64_t> last{0};
  const auto listening = received->onMetrics([&](const StreamMetrics& now) {
    EXPECT_GT(now.timestampMs, last.exchange(now.timestampMs));
    ++looks;
  });
  EXPECT_TRUE(grace->waitUntil([&] { return looks >= 3; }));
  received->offMetrics(listening);
}

}  // namespace
}  // namespace kestrova::test
