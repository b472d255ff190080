#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/Peer.h>
#include <kestrova/signalling/APIManager.h>
#include <kestrova/signalling/Response.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

#include <cmath>

namespace kestrova::test {
namespace {

TEST(ResponseTest, isStatusOKJudgesAnyAnswer) {
  const std::pair<Dictionary, std::string> rows[] = {
      {{{"data", {{"status", "ok"}}}}, ""},
      {{{"data", {{"status", "OK"}}}}, ""},
      {{{"data", {{"status", "error"}, {"errorCode", 4001}, {"message", "bad"}}}},
       " [ ErrorCode: 4001, Message: bad ] "},
      {{{"data", {{"errorCode", "4001"}, {"message", 5}}}},
       " [ ErrorCode: -1, Message: Unknown error ] "},
      {{{"data", Dictionary()}}, " [ ErrorCode: -1, Message: Unknown error ] "},
      {{}, "Error response: {}"},
      {{{"data", "text"}}, R"(Error response: {"data":"text"})"},
      {{{"ACK_STATUS", "no ack"}}, R"(Error response: {"ACK_STATUS":"no ack"})"},
      {{{"odd", NAN}}, "Error response: "},
  };
  for (const auto& [answer, failure] : rows) {
    const auto status = isStatusOK(answer);
    EXPECT_EQ(status.failure, failure);
    EXPECT_EQ(status.ok, failure.empty());
  }
}

TEST(APIManagerTest, joinsTheAddressAsItStands) {
  TestPlatform platform;
  const auto ask = [&](const char* url) {
    return platform.run(
        APIManager::getServerConfig(platform.session, "tok", "room", std::string(url)));
  };
  ask("localhost:8443");
  EXPECT_EQ(platform.session->requests.back().url,
            "https://localhost:8443/infra/v1/meetings/init-config");
  const auto asked = platform.session->requests.size();
  EXPECT_EQ(ask("no host").answer, Dictionary());
  EXPECT_EQ(ask("no host").cause, "the service's address makes no URL");
  EXPECT_EQ(platform.session->requests.size(), asked);
  EXPECT_TRUE(
      platform.traces.has("Invalid signaling URL: https://no host/infra/v1/meetings/init-config"));
}

TEST(PeerTest, readsWhatIsThereAndHidesTheServicesMarkers) {
  const auto read = [](const char* json) {
    auto data = parseDictionary(json);
    separateAgentMarkers(data);
    return Peer::fromJson(data);
  };
  const auto agent = read(R"({"id":"a","displayName":"Bot","mode":"RECV_ONLY","metaData":
      {"agent_id":"g7","agent_name":"n","is_kestrova_agent":true,"enableAgentEvents":true,"x":1},
      "device":{"name":"chrome","version":"1"}})");
  EXPECT_EQ(agent.agentId, "g7");
  EXPECT_EQ(agent.metaData, (Dictionary{{"x", 1}}));
  EXPECT_EQ(agent.device, "chrome");
  EXPECT_EQ(agent.participantMode(), Mode::RECV_ONLY);

  const auto odd = read(R"({"id":7,"metaData":"text","mode":"recv_only","device":["x"]})");
  EXPECT_EQ(odd.id, "");
  EXPECT_FALSE(odd.metaData || odd.agentId);
  EXPECT_EQ(odd.participantMode(), Mode::CONFERENCE);
  EXPECT_FALSE(read(R"({"metaData":{"agent_id":5}})").agentId);
  EXPECT_NE(read(R"({"metaData":{}})").metaData, MetaData());

  const auto peers = getParticipants(parseDictionary(
      R"({"data":{"peers":[{"id":"a","metaData":{"agent_id":"g"}},5,{"id":"b"}]}})"));
  ASSERT_EQ(peers.size(), 2u);
  EXPECT_EQ(peers[0].agentId, "g");
  EXPECT_TRUE(getParticipants({{"data", {{"peers", Dictionary()}}}}).empty());
}

}  // namespace
}  // namespace kestrova::test
