#include <gtest/gtest.h>
#include <tests/support/TestRoom.h>

namespace kestrova::test {
namespace {

TEST(PubSubEndpointStoreTest, followsTheAnswerToEveryJoin) {
  TestPlatform platform;
  const TestRoom room(platform);
  const auto& client = room.client;
  platform.run(
      client->setupDeviceAndTransports(false, std::nullopt, false, false, room.connection()));
  auto& store = client->pubSubEndpointStore();
  const std::pair<Value, std::optional<std::string>> rows[] = {
      {ScriptedService::ok({{"pubSubUrl", "wss://a"}}), "wss://a"},
      {"no dictionary at all", "wss://a"},
      {ScriptedService::ok(), std::nullopt},
      {ScriptedService::ok({{"pubSubUrl", "wss://b"}}), "wss://b"},
      {ScriptedService::ok({{"pubSubUrl", 5}}), std::nullopt}};
  for (const auto& [answer, url] : rows) {
    platform.service->respond("join", [&answer](const Dictionary&) { return answer; });
    platform.run(client->join(CameraPosition::front, false, Mode::VIEWER, true, room.connection()));
    EXPECT_EQ(store.pubSubUrl(), url) << answer;
  }
}

}  // namespace
}  // namespace kestrova::test
