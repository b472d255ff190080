#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MediaBench.h"

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using enum TransportConnectionState;

class TransportsTest : public testing::Test {
protected:
  void transportsAreCalled(const char* send, const char* receive) {
    platform.service->respond("createWebRtcTransport", [=](const Dictionary& data) {
      return std::optional(ScriptedService::ok({{"id", boolean(data, "producing", false) ? send  //
                                                                                         : receive},
                                                {"iceParameters", Dictionary()},
                                                {"iceCandidates", List()},
                                                {"dtlsParameters", Dictionary()}}));
    });
  }
  TestPlatform platform;
};

// ---- Set-up ------------------------------------------------------------------------------------

TEST_F(TransportsTest, routerCapabilitiesAreLoadedWithoutVideoOrientation) {
  const Dictionary orientation{{"uri", "urn:3gpp:video-orientation"}};
  const Dictionary other{{"uri", "urn:ietf:mid"}, {"preferredId", 3}};
  struct Row {
    const char* what;
    Value given;
    Value loaded;
  };
  const Row rows[] = {
      {"only orientation", List{orientation, orientation}, List()},
      {"order is kept", List{other, orientation, Dictionary()}, List{other, Dictionary()}},
      {"not a list", "none", "none"},
      {"not all dictionaries", List{orientation, 5}, List{orientation, 5}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestPlatform own;
    own.service->answer("getRouterRtpCapabilities", {{"headerExtensions", row.given}});
    MediaBench(own).setUp();
    EXPECT_EQ(parseDictionary(own.media->loadedWith).at("headerExtensions"), row.loaded);
  }
}

TEST_F(TransportsTest, aSetUpThatFailsMakesNoTransport) {
  struct Row {
    const char* what;
    std::function<void(TestPlatform&)> arrange;
    std::vector<const char*> traces;
  };
  const Row rows[] = {
      {"no capabilities",
       [](auto& p) {
         p.service->respond("getRouterRtpCapabilities", [](const Dictionary&) {
           return std::optional<Value>(Dictionary{{"data", "none"}});
         });
       },
       {"Failed to load device capabilities"}},
      {"load fails",
       [](auto& p) { p.media->refused = {"load"}; },
       {"Failed to load device capabilities with an error.",
        "Could not join the room due to an error."}},
      {"own capabilities fail",
       [](auto& p) { p.media->refused = {"rtpCapabilities"}; },
       {"Failed to load device capabilities with an error.",
        "Could not join the room due to an error."}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestPlatform own;
    row.arrange(own);
    MediaBench bench(own);
    bench.setUp();
    for (const char* line : row.traces) EXPECT_TRUE(own.traces.has(line)) << line;
    EXPECT_EQ(own.service->count("createWebRtcTransport"), 0);
  }
}

TEST_F(TransportsTest, aReconnectKeepsTheDeviceAndGivesUpTheTransports) {
  MediaBench bench(platform);
  bench.setUp();
  const auto send = bench.transports->sendTransport();
  platform.journal.clear();
  bench.setUp();
  EXPECT_THAT(platform.journal.lines(), ElementsAre("device.createSendTransport send",
                                                    "device.createReceiveTransport receive"))
      << "neither loaded again nor closed";
  EXPECT_NE(bench.transports->sendTransport(), send);
  EXPECT_TRUE(platform.traces.has("Device Capabilities Already Loaded"));
  platform.journal.clear();
  bench.setUp(true);
  EXPECT_THAT(platform.journal.lines(), IsEmpty()) << "a change of mode keeps what there is";
}

TEST_F(TransportsTest, aTransportThatCouldNotBeMadeMayBeTriedAgain) {
  MediaBench bench(platform);
  platform.media->refused = {"createSendTransport", "createReceiveTransport"};
  bench.setUp();
  EXPECT_TRUE(
      platform.traces.has("error while creating sendTransport: createSendTransport refused"));
  EXPECT_TRUE(
      platform.traces.has("error while creating recvTransport: createReceiveTransport refused"));
  platform.media->refused.clear();
  bench.setUp(true);
  EXPECT_TRUE(bench.transports->sendTransport() && bench.transports->receiveTransport());
}

TEST_F(TransportsTest, aProducerThatTheServiceDoesNotNameFails) {
  MediaBench bench(platform);
  bench.setUp();
  for (const Dictionary& data : {Dictionary(), Dictionary{{"id", 7}}}) {
    platform.traces.clear();
    platform.service->respond("produce", [data](const Dictionary&) {
      return std::optional<Value>(Dictionary{{"data", data}});
    });
    auto stream = std::make_shared<CustomRTCMediaStream>(
        CustomStreamFields{.videoTrack = std::make_shared<ScriptedVideoTrack>("mine")});
    EXPECT_EQ(
        platform.run(bench.publishing->produceLocalVideo(stream, bench.connection(), std::nullopt)),
        nullptr);
    EXPECT_TRUE(platform.traces.has("Error in produce event of Send Media Transport "));
    EXPECT_TRUE(platform.traces.has("Enable WebCam Failed"));
    EXPECT_THAT(bench.registry->producers(), IsEmpty());
  }
}

// ---- Restarts ----------------------------------------------------------------------------------

TEST_F(TransportsTest, eachTransportOfThatIdIsRestartedAndTheServiceToldInAnyCase) {
  struct Row {
    const char* what;
    const char* receive;
    const char* named;
    std::vector<std::string> restarts;
    std::vector<const char*> failures;
  };
  const Row rows[] = {
      {"send",
       "r",
       "s",
       {"s.restartICE {\"pwd\":\"x\"}"},
       {"Error while send transport restartICE."}},
      {"receive",
       "r",
       "r",
       {"r.restartICE {\"pwd\":\"x\"}"},
       {"Error while recv transport restartICE."}},
      {"both",
       "s",
       "s",
       {"s.restartICE {\"pwd\":\"x\"}", "s.restartICE {\"pwd\":\"x\"}"},
       {"Error while send transport restartICE.", "Error while recv transport restartICE."}},
      {"neither", "r", "other", {}, {}},
  };
  for (const auto& row : rows)
    for (const bool refused : {false, true}) {
      SCOPED_TRACE(row.what + std::string(refused ? ", refused" : ""));
      TestPlatform own;
      platform.traces.clear();
      MediaBench bench(own);
      own.service->respond("createWebRtcTransport", [&](const Dictionary& data) {
        return std::optional(
            ScriptedService::ok({{"id", boolean(data, "producing", false) ? "s" : row.receive},
                                 {"iceParameters", Dictionary()},
                                 {"iceCandidates", List()},
                                 {"dtlsParameters", Dictionary()}}));
      });
      bench.setUp();
      own.journal.clear();
      if (refused) {
        own.media->refused = {"restartICE"};
        own.service->refuse("iceRestarted", 4001, "late");
      }
      own.run(bench.transports->handleRemoteRestartIce(row.named, {{"pwd", "x"}}));
      EXPECT_EQ(own.journal.lines(), row.restarts);
      EXPECT_EQ(own.service->count("iceRestarted"), long(row.restarts.size()));
      if (!row.restarts.empty()) {
        EXPECT_EQ(own.service->last("iceRestarted"), (Dictionary{{"transportId", row.named}}));
      }
      for (const char* line : row.failures) {
        EXPECT_EQ(own.traces.has(line), refused);
        EXPECT_EQ(own.traces.attribute(line, "error"), refused ? "restartICE refused" : "");
      }
      EXPECT_EQ(own.traces.count("Error while iceRestarted request."),
                refused ? long(row.restarts.size()) : 0);
    }
}

TEST_F(TransportsTest, aDropWhileARestartWaitsLeavesTheOtherTransportAlone) {
  transportsAreCalled("same", "same");
  MediaBench bench(platform);
  bench.setUp();
  platform.service->withhold("iceRestarted");
  spawn(bench.transports->handleRemoteRestartIce("same", {}));
  platform.pump();
  bench.dispose();
  platform.pump();
  platform.service->answerLate("iceRestarted", ScriptedService::ok());
  platform.pump();
  EXPECT_EQ(platform.journal.count("same.restartICE"), 1);
}

// ---- States and disposal -----------------------------------------------------------------------

TEST_F(TransportsTest, beforeTheJoinADisconnectClosesStreamsButKeepsThemListed) {
  MediaBench bench(platform);
  bench.setUp();
  const auto producer = bench.addProducer("p1", false);
  const auto ended = bench.addProducer("p2", true);
  ended->close();
  const auto consumer = bench.addConsumer("c1");
  platform.journal.clear();
  platform.media->send.lock()->reach(failed);
  EXPECT_THAT(platform.journal.lines(), IsEmpty());
  platform.media->send.lock()->reach(disconnected);
  EXPECT_THAT(platform.journal.lines(), ElementsAre("producer p1.close"));
  EXPECT_THAT(bench.registry->producers(), UnorderedElementsAre(producer, ended));
  EXPECT_FALSE(consumer->closed());
  platform.media->receive.lock()->reach(disconnected);
  EXPECT_TRUE(consumer->closed());
  EXPECT_THAT(bench.registry->consumers(), ElementsAre(consumer));
}

TEST_F(TransportsTest, aDisposalClosesStreamsAndLiveTransportsOnly) {
  for (const auto state : {new_, checking, connected, completed, failed, disconnected,
                           TransportConnectionState::closed}) {
    SCOPED_TRACE(static_cast<int>(state));
    const bool live = state <= completed;
    TestPlatform own;
    MediaBench bench(own);
    bench.setUp();
    const auto send = own.media->send.lock();
    const auto receive = own.media->receive.lock();
    send->reach(state);
    const auto consumer = bench.addConsumer("c1");
    bench.dispose();
    EXPECT_FALSE(send->closed()) << "only on the main queue";
    own.pump();
    EXPECT_EQ(send->closed(), live);
    EXPECT_EQ(bench.transports->sendTransport() == nullptr, live);
    EXPECT_TRUE(receive->closed());
    EXPECT_FALSE(consumer->closed()) << "its transport takes it along";
    EXPECT_THAT(bench.registry->consumers(), IsEmpty());
    EXPECT_TRUE(own.traces.has("All resources closed successfully"));
  }
}

}  // namespace
}  // namespace kestrova::test
