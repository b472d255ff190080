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
  const std::shared_ptr<ServiceRequests> services = room.client->serviceRequests();
  const std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(ConsumerControlsTest, eachRequestSaysHowItWent) {
  struct Row {
    const char* request;
    Dictionary data;
    std::function<Task<void>()> call;
    int error;
  };
  const Dictionary consumer{{"consumerId", "c1"}};
  const Dictionary layers{{"consumerId", "c1"}, {"spatialLayer", 0}, {"temporalLayer", 2}};
  const Row rows[] = {
      {"pauseConsumer", consumer, [&] { return controls->pauseConsumer("c1"); }, 4074},
      {"resumeConsumer", consumer, [&] { return controls->resumeConsumer("c1"); }, 4075},
      {"setConsumerPreferredLayers", layers,
       [&] { return controls->setQuality(VideoQuality::low, "c1", "bob", [] {}); }, 4073},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.request);
    platform.run(row.call());
    EXPECT_EQ(platform.service->last(row.request), row.data);
    EXPECT_THAT(errors(), IsEmpty());
    platform.service->refuse(row.request);
    platform.run(row.call());
    EXPECT_EQ(platform.service->count(row.request), 2) << "a refusal is not tried again";
    EXPECT_THAT(errors(), ElementsAre(row.error));
    EXPECT_EQ(listener->errors[0].cause(), "no");
    listener->errors.clear();
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
    platform.run(services->pauseAllStreams("video"));
    EXPECT_EQ(platform.service->count("pauseAllConsumers"), row.requests);
    EXPECT_EQ(platform.traces.attribute("Emitting PAUSED_ALL_STREAM Event", "kind"),
              row.paused ? "video" : "");
    EXPECT_EQ(platform.traces.has("All Video Streams paused successfully."), row.paused);
  }
}

TEST_F(ConsumerControlsTest, aSecondChanceDoesNotUndoWhatWasAskedSince) {
  platform.service->withhold("pauseAllConsumers");
  room.client->inOrder(services->pauseAllStreams("all"));
  room.client->inOrder(services->resumeAllStreams("all"));
  platform.pump();
  EXPECT_TRUE(
      platform.service->answerLate("pauseAllConsumers", Dictionary{{"data", withIssues("ok")}}));
  platform.pump();
  EXPECT_EQ(platform.service->count("pauseAllConsumers"), 1);

  room.client->inOrder(services->pauseAllStreams("audio"));
  room.client->inOrder(services->resumeAllStreams("video"));
  platform.pump();
  platform.service->answerLate("pauseAllConsumers", Dictionary{{"data", withIssues("ok")}});
  platform.pump();
  EXPECT_EQ(platform.service->count("pauseAllConsumers"), 3) << "which is another kind";
  platform.service->socket()->drop();  // nobody waits for an answer any more
  platform.pump();
}

}  // namespace
}  // namespace kestrova::test
