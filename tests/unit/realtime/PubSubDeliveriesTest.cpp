#include <kestrova/realtime/PubSubDeliveries.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

namespace kestrova::test {
namespace {

using testing::ElementsAre;

class PubSubDeliveriesTest : public testing::Test {
protected:
  void deliver(const std::string& stream, const std::string& what, std::size_t bytes = 1) {
    deliveries.deliver(stream, bytes, [this, stream, what] { told.push_back(stream + what); });
  }
  void lose(const std::string& stream, std::uint64_t count) {
    deliveries.lose(stream, count, [this, stream](std::uint64_t lost) {
      told.push_back(stream + " lost " + std::to_string(lost));
    });
  }
  TestPlatform platform;
  PubSubDeliveries deliveries;
  std::vector<std::string> told;
};

TEST_F(PubSubDeliveriesTest, aGapIsToldWhereItIs) {
  deliver("a", "1");
  lose("a", 2);
  lose("b", 5);
  lose("a", 3);
  deliver("a", "2");
  lose("a", 4);
  lose("b", 1);
  platform.pump();
  EXPECT_THAT(told, ElementsAre("a1", "a lost 5", "b lost 6", "a2", "a lost 4"));
  lose("a", 7);  // the one before has been told
  platform.pump();
  EXPECT_EQ(told.back(), "a lost 7");
}

TEST_F(PubSubDeliveriesTest, whatWaitsIsBoundedUntilItHasBeenHeard) {
  deliver("a", "1", PubSubDeliveries::mostWaitingBytes - 1);
  EXPECT_TRUE(deliveries.hasRoom());
  deliver("a", "2", 1);
  EXPECT_FALSE(deliveries.hasRoom());
  platform.pump();
  EXPECT_TRUE(deliveries.hasRoom());
}

TEST_F(PubSubDeliveriesTest, aListenerThatThrowsGivesItsRoomBack) {
  deliveries.deliver("a", PubSubDeliveries::mostWaitingBytes, [] { throw 5; });
  testing::internal::CaptureStderr();
  platform.pump();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("main queue"));
  EXPECT_TRUE(deliveries.hasRoom());
}

}  // namespace
}  // namespace kestrova::test
