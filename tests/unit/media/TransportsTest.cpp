#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MediaBench.h"

namespace kestrova::test {
namespace {

using testing::IsEmpty;
using enum TransportConnectionState;

class TransportsTest : public testing::Test {
protected:
  TestPlatform platform;
};

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
