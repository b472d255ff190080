#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/RecordingListeners.h>
#include <tests/support/TestRoom.h>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ConsumerControlsTest : public testing::Test {
protected:
  ConsumerControlsTest() { room.core->context->listeners.add(listener); }
  std::vector<int> errors() {
    platform.pump();
    std::vector<int> codes;
    for (const auto& error : listener->errors) codes.push_back(error.rawValue());
    return codes;
  }
  /// A reply that names consumers which the service could not reach.
  static Dictionary withIssues(const char* status) {
    return {{"status", status}, {"errorCode", 5}, {"consumersWithIssues", List{"c7"}}};
  }

  TestPlatform platform;
  const TestRoom room{platform};
  const std::shared_ptr<ConsumerControls> controls = room.client->consumerControls();
  const std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(ConsumerControlsTest, eachRequestSaysHowItWent) {
  struct Row {
    const char* request;
    Dictionary data;
    std::function<Task<void>()> call;
    const char* span;
    const char* done;
    std::vector<const char*> failed;
    std::vector<int> errors;
  };
  const Dictionary consumer{{"consumerId", "c1"}};
  const Row rows[] = {
      {"pauseConsumer",
       consumer,
       [&] { return controls->pauseConsumer("c1"); },
       "Requesting to Pause Stream",
       "Stream paused successfully",
       {"Error in stream's pause() ->  [ ErrorCode: 4000, Message: no ] "},
       {4074}},
      {"resumeConsumer",
       consumer,
       [&] { return controls->resumeConsumer("c1"); },
       "Requesting to Resume Stream",
       "Stream resumed successfully",
       {"Error in stream's resume() ->  [ ErrorCode: 4000, Message: no ] "},
       {4075}},
      {"setConsumerPreferredLayers",
       {{"consumerId", "c1"}, {"spatialLayer", 1}, {"temporalLayer", 2}},
       [&] { return controls->setQuality(VideoQuality::medium, "c1", "bob", [] {}); },
       "Setting WebCam Quality to MEDIUM",
       "Webcam quality set successfully",
       {"Failed to set spatial and temporal layers for webcam with error:  [ ErrorCode: 4000, "
        "Message: no ] "},
       {4073}},
      {"pauseAllConsumers",
       {{"kind", "all"}},
       [&] { return controls->pauseAllStreams("all"); },
       "Pause All Media Stream Requested.",
       "All Media Streams paused successfully.",
       {"Error in pauseAllStreams() ->  [ ErrorCode: 4000, Message: no ] "},
       {4057}},
      {"resumeAllConsumers",
       {{"kind", "share"}},
       [&] { return controls->resumeAllStreams("share"); },
       "Resume All Share Stream Requested.",
       "All Share Streams resumed successfully.",
       {"Error in resumeAllStreams() ->  [ ErrorCode: 4000, Message: no ] "},
       {4058}},
      {"enableAdaptiveSubscription",
       {},
       [&] { return controls->enableAdaptiveSubscription(); },
       "Enable Adaptive Subscription Requested",
       "Adaptive subscription enable request sent successfully.",
       {"Error in enableAdaptiveSubscription() ->  [ ErrorCode: 4000, Message: no ] .",
        "Enable adaptive subscription failed."},
       {4048}},
      {"disableAdaptiveSubscription",
       {},
       [&] { return controls->disableAdaptiveSubscription(); },
       "Disable Adaptive Subscription Requested",
       "Adaptive subscription disable request sent successfully.",
       {"Error in disableAdaptiveSubscription() ->  [ ErrorCode: 4000, Message: no ] .",
        "Disable adaptive subscription failed."},
       {4049}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.request);
    platform.run(row.call());
    EXPECT_EQ(platform.service->last(row.request), row.data);
    EXPECT_TRUE(platform.traces.has(row.span));
    EXPECT_TRUE(platform.traces.has(row.done));
    EXPECT_THAT(errors(), IsEmpty());

    platform.traces.clear();
    platform.service->refuse(row.request);
    platform.run(row.call());
    EXPECT_EQ(platform.service->count(row.request), 2) << "a refusal is not tried again";
    for (const char* line : row.failed) EXPECT_TRUE(platform.traces.has(line)) << line;
    EXPECT_FALSE(platform.traces.has(row.done));
    EXPECT_EQ(errors(), row.errors);
    listener->errors.clear();
  }
}

TEST_F(ConsumerControlsTest, qualitiesAskForTheirLayers) {
  const std::tuple<VideoQuality, int, int> rows[] = {
      {VideoQuality::high, 2, 2}, {VideoQuality::medium, 1, 2}, {VideoQuality::low, 0, 2}};
  for (const auto& [quality, spatial, temporal] : rows) {
    platform.run(controls->setQuality(quality, "c1", "bob", [] {}));
    EXPECT_EQ(
        platform.service->last("setConsumerPreferredLayers"),
        (Dictionary{{"consumerId", "c1"}, {"spatialLayer", spatial}, {"temporalLayer", temporal}}));
  }
}

TEST_F(ConsumerControlsTest, consumersThatWereMissedGetOneMoreRequestAndNoThird) {
  struct Row {
    const char* what;
    std::vector<Dictionary> replies;
    long requests;
    bool paused;
  };
  const Row rows[] = {
      {"no issues", {Dictionary{{"consumersWithIssues", List()}}}, 1, true},
      {"issues of another type", {Dictionary{{"consumersWithIssues", "c7"}}}, 1, true},
      {"issues twice", {withIssues("ok"), withIssues("ok")}, 2, true},
      {"issues, then refused", {withIssues("ok"), Dictionary{{"status", "error"}}}, 2, false},
      {"refused with issues, then good", {withIssues("error"), Dictionary()}, 2, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    platform.traces.clear();
    platform.service->forgetRequests();
    std::size_t next = 0;
    platform.service->respond("pauseAllConsumers", [&](const Dictionary&) -> std::optional<Value> {
      auto data = row.replies.at(std::min(next++, row.replies.size() - 1));
      if (!data.contains("status")) data["status"] = "ok";
      return Value(Dictionary{{"data", data}});
    });
    platform.run(controls->pauseAllStreams("video"));
    EXPECT_EQ(platform.service->count("pauseAllConsumers"), row.requests);
    EXPECT_EQ(platform.traces.attribute("Emitting PAUSED_ALL_STREAM Event", "kind"),
              row.paused ? "video" : "");
    EXPECT_EQ(platform.traces.has("All Video Streams paused successfully."), row.paused);
  }
}

TEST_F(ConsumerControlsTest, anAnswerThatNeverComesEndsTheWait) {
  platform.service->withhold("pauseAllConsumers");
  platform.start([](std::shared_ptr<ConsumerControls> target) -> Task<bool> {
    co_await target->pauseAllStreams("audio");
    co_return true;
  }(controls));
  EXPECT_THAT(errors(), IsEmpty());
  platform.advance(SocketRequestHandler::acknowledgementTimeout);
  EXPECT_THAT(errors(), ElementsAre(4057));
}

}  // namespace
}  // namespace kestrova::test
