#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>
#include <tests/unit/tracing/RecordingOutput.h>

#include "EngineStats.h"

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class MonitorTest : public testing::Test {
protected:
  static constexpr auto period = 2000ms;

  MonitorTest() {
    platform.media->stats = [this](const std::string& transport) -> Task<std::string> {
      ++looks[transport];
      const bool isHeld = held;
      auto text = boost::json::serialize(transport == sendId() ? sentStats : receivedStats);
      if (isHeld)
        co_await awaitCallback<bool>([this](Completion<bool> done) { waiting.push_back(done); });
      co_return text;
    };
  }
  std::string sendId() const {
    const auto send = platform.media->send.lock();
    return send ? send->id() : "";
  }
  std::string receiveId() const {
    const auto receive = platform.media->receive.lock();
    return receive ? receive->id() : "";
  }
  Dictionary statsData() {
    const auto pushed = test.socket().push("statsData", {{"method", "statsData"}});
    platform.pump();
    return asDictionary(pushed->value());
  }
  std::shared_ptr<MediaStream> streamOf(const std::string& id) {
    for (const auto& [peerId, participant] : test.meeting->participants())
      if (const auto streams = participant->streams(); streams.contains(id)) return streams.at(id);
    return nullptr;
  }
  /// What the stream tells of itself.
  std::shared_ptr<std::vector<std::string>> listenTo(MediaStream& stream) {
    auto heard = std::make_shared<std::vector<std::string>>();
    stream.on(MediaStreamEventType::state,
              [heard](StreamState state) { heard->emplace_back(text(state)); });
    stream.onMetrics([heard](const StreamMetrics& metrics) {
      heard->push_back("fps " + std::to_string(static_cast<int>(metrics.framesPerSecond)));
    });
    return heard;
  }
  Dictionary picture(const std::string& id, int frames, int freezes) {
    return received("video", 7, streamOf(id)->track()->id(),
                    {{"bytesReceived", frames * 1000},
                     {"framesDecoded", frames},
                     {"freezeCount", freezes},
                     {"packetsReceived", frames}});
  }

  TestPlatform platform;
  List sentStats;
  List receivedStats;
  std::map<std::string, int> looks;
  bool held = false;
  std::vector<Completion<bool>> waiting;
  TestMeeting test = TestMeeting::joined(platform, {.micEnabled = true});
};

TEST_F(MonitorTest, looksAtBothTransportsEveryTwoSeconds) {
  const auto send = sendId();
  const auto receive = receiveId();
  platform.advance(period - 1ms);
  const auto before = looks;
  platform.advance(10 * period);
  EXPECT_EQ(looks[send], before.contains(send) ? before.at(send) + 10 : 10);
  EXPECT_EQ(looks[receive], before.contains(receive) ? before.at(receive) + 10 : 10);

  // A transport that can't be used is not asked.
  platform.media->receive.lock()->reach(TransportConnectionState::failed);
  const auto asked = looks[receive];
  platform.advance(3 * period);
  EXPECT_EQ(looks[receive], asked);

  test.meeting->leave();
  platform.pump();
  const auto last = looks;
  platform.advance(5 * period);
  EXPECT_EQ(looks, last) << "nobody looks behind the end";
}

TEST_F(MonitorTest, anAnswerThatTakesItsTimeHoldsNothingUp) {
  const auto send = sendId();
  held = true;
  platform.advance(5 * period);
  EXPECT_EQ(looks[send], 1) << "the looks do not pile up";
  EXPECT_FALSE(statsData().empty());
  test.addPeer("bob");
  EXPECT_EQ(test.meeting->participants().size(), 1u);
  held = false;
  for (const auto& done : std::exchange(waiting, {})) done(true);
  platform.advance(2 * period);
  EXPECT_GE(looks[send], 2);

  // The connection goes while an answer is under way.
  held = true;
  platform.advance(period);
  test.socket().drop();
  platform.pump();
  test.meeting.reset();
  platform.pump();
  for (const auto& done : std::exchange(waiting, {})) done(true);
  platform.pump();
}

TEST_F(MonitorTest, theServiceGetsEveryFifthReport) {
  auto data = statsData();
  EXPECT_EQ(text(data, "peerId"), TestMeeting::localId);
  const auto* stats = dictionary(data, "statsData");
  ASSERT_TRUE(stats);
  EXPECT_EQ(stats->size(), 1u);
  ASSERT_EQ(list(*stats, "deviceStats")->size(), 1u);
  const auto& sample = asDictionary(list(*stats, "deviceStats")->front());
  EXPECT_EQ(integer(sample, "timestamp"), platform.clock->wallClockMs());
  EXPECT_TRUE(integer(sample, "cpuUsage"));

  const auto microphone = test.meeting->localParticipant()->streams().begin()->second;
  sentStats = {sent("audio", 3, {{"bytesSent", 1024}}), source("audio", microphone->track()->id())};
  test.addPeer("bob");
  test.announce("c1", "bob", "video");
  test.announce("c2", "bob", "audio", true);
  receivedStats = {picture("c1", 60, 0),
                   received("audio", 8, streamOf("c2")->track()->id(), {{"packetsReceived", 5}})};
  platform.advance(4 * period);
  data = statsData();
  EXPECT_FALSE(dictionary(data, "statsData")->contains("producerStats"));
  EXPECT_EQ(test.meeting->localParticipant()->getAudioStats()->size(), 1u);
  platform.advance(period);
  data = statsData();
  stats = dictionary(data, "statsData");
  EXPECT_EQ(list(*dictionary(*stats, "producerStats"), "audio")->size(), 1u);
  const auto* consumers = list(*stats, "consumerStats");
  ASSERT_TRUE(consumers);
  std::vector<std::string> kinds;
  for (const auto& entry : *consumers)
    kinds.push_back(text(asDictionary(entry), "peerId", "") + " " +
                    text(asDictionary(entry), "kind", ""));
  EXPECT_THAT(kinds, testing::UnorderedElementsAre("bob video", "bob shareAudio"));
  EXPECT_EQ(list(*stats, "deviceStats")->size(), 3u) << "one for each question";
}

TEST_F(MonitorTest, whatAParticipantSendsIsToBeReadOfThem) {
  const auto bob = test.addPeer("bob");
  const auto bot = test.addPeer("bot", {{"metaData", {{"agent_id", "g7"}}}});
  test.announce("c1", "bob", "video");
  EXPECT_FALSE(bob->getVideoStats());
  const auto stream = streamOf("c1");
  const auto heard = listenTo(*stream);
  receivedStats = {picture("c1", 0, 0)};
  platform.advance(period);
  receivedStats = {picture("c1", 60, 0)};
  platform.advance(period);
  const auto entries = bob->getVideoStats();
  ASSERT_TRUE(entries);
  EXPECT_EQ(text(asDictionary(entries->front()), "kind"), "video");
  EXPECT_FALSE(bob->getAudioStats());
  EXPECT_FALSE(bob->getShareStats());
  EXPECT_THROW(bot->getShareStats(), AgentParticipantError);
  EXPECT_EQ(stream->metrics().framesPerSecond, 30);
  EXPECT_EQ(stream->metrics().timestampMs, platform.clock->wallClockMs());
  EXPECT_THAT(*heard, ElementsAre("fps 30")) << "the first look only counts";

  // The road to the server is gone, and nobody is told old news.
  platform.media->receive.lock()->reach(TransportConnectionState::disconnected);
  platform.advance(period);
  EXPECT_THAT(*heard, ElementsAre("fps 30", "fps 0"));
  EXPECT_FALSE(bob->getVideoStats());
}

TEST_F(MonitorTest, aFrozenPictureIsTold) {
  test.addPeer("bob");
  test.announce("c1", "bob", "video");
  const auto heard = listenTo(*streamOf("c1"));
  receivedStats = {picture("c1", 60, 0)};
  platform.advance(period);
  receivedStats = {picture("c1", 60, 1)};
  platform.advance(period);
  EXPECT_THAT(*heard, testing::UnorderedElementsAre("FREEZE_DETECTED", "fps 0"));
  heard->clear();
  platform.advance(3 * period);
  EXPECT_THAT(*heard, Contains("FREEZE_RESOLVED").Times(1));
}

TEST_F(MonitorTest, everyStreamTellsItsEndOnce) {
  test.addPeer("ada");
  test.addPeer("bob");
  test.addPeer("eve");
  test.announce("a1", "ada", "audio");
  test.announce("a2", "ada", "video");
  test.announce("b1", "bob", "video", true);
  test.announce("e1", "eve", "audio");
  std::map<std::string, std::shared_ptr<std::vector<std::string>>> heard;
  for (const char* id : {"a1", "a2", "b1", "e1"}) heard[id] = listenTo(*streamOf(id));
  const auto own = listenTo(*test.meeting->localParticipant()->streams().begin()->second);

  test.notify("consumerClosed", {{"consumerId", "a1"}});
  test.notify("consumerClosed", {{"consumerId", "a2"}});
  platform.advance(200ms);
  EXPECT_THAT(*heard["a1"], ElementsAre("ENDED"));
  EXPECT_THAT(*heard["a2"], ElementsAre("ENDED"));
  test.notify("peerClosed", {{"peerId", "bob"}});
  EXPECT_THAT(*heard["b1"], ElementsAre("ENDED"));
  // The service ends the meeting, and the application lets go of it as soon as it hears.
  test.listener->when("onMeetingLeft", [&] { test.meeting.reset(); });
  test.notify("close", {{"reason", {{"code", 1006}}}});
  platform.advance(5s);
  EXPECT_THAT(*heard["e1"], ElementsAre("ENDED"));
  EXPECT_THAT(*own, ElementsAre("ENDED"));
}

TEST_F(MonitorTest, aListenerMayHoldItsStream) {
  test.addPeer("bob");
  test.announce("c1", "bob", "video");
  auto stream = streamOf("c1");
  stream->on(MediaStreamEventType::state, [stream](StreamState) {});
  stream->onMetrics([stream](const StreamMetrics&) {});
  const std::weak_ptr<MediaStream> watched = std::exchange(stream, nullptr);
  test.notify("consumerClosed", {{"consumerId", "c1"}});
  platform.advance(1s);
  EXPECT_TRUE(watched.expired());
}

TEST_F(MonitorTest, whatHoldsTheUplinkBackIsTold) {
  const auto look = [&](double total, int measurements, const char* reason) {
    sentStats = {
        sent("video", 1, {{"qualityLimitationReason", reason}}),
        reported("video", 1,
                 {{"totalRoundTripTime", total}, {"roundTripTimeMeasurements", measurements}})};
    platform.advance(period);
  };
  int asked = 0;
  const auto output =
      std::make_shared<RecordingOutput>(EventCategories{EventCategory::internalLog}, false);
  output->duringEvent = [&] {
    test.meeting->localParticipant()->getVideoStats();
    ++asked;
  };
  SdkTracer::shared().registerOutput(output);
  look(0.1, 1, "cpu");
  EXPECT_GT(asked, 0);
  SdkTracer::shared().removeOutput(output);
  EXPECT_THAT(test.listener->take(), Contains("onQualityLimitation CPU DETECTED at " +
                                              std::to_string(platform.clock->wallClockMs())));
  look(0.2, 2, "none");
  EXPECT_TRUE(test.listener->has("onQualityLimitation CPU RESOLVED"));
}

}  // namespace
}  // namespace kestrova::test
