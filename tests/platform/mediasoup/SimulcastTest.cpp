#include <gtest/gtest.h>

#include "Endpoint.h"
#include <iostream>

namespace kestrova::test {
namespace {

using std::chrono::steady_clock;

// The server passes the top layer on when the sender's estimate lets it be sent. Without further
// probes that estimate grows by 8 % a second, and 720p takes it 7 s.
TEST(Simulcast, TheTopLayerComesSoon) {
  Sfu sfu;
  auto endpoint = Endpoint::make(sfu);
  ProducerOptions options;
  options.track = endpoint->cameraTrack();
  options.encodings = threeLayers();
  const auto began = steady_clock::now();
  auto camera = endpoint->produce(std::move(options));
  auto picture = endpoint->watch(endpoint->consume(camera->id()));
  ASSERT_TRUE(picture->waitForWidth(1280));
  const std::chrono::duration<double> took = steady_clock::now() - began;
  std::cout << "1280 wide after " << took.count() << " s\n";
  EXPECT_LT(took.count(), 4);
}

// The search for bandwidth outlives the call that began it; its transport may not.
TEST(Simulcast, ATransportMayGoWhileBandwidthIsSought) {
  Sfu sfu;
  for (int round = 0; round < 4; ++round) {
    auto endpoint = Endpoint::make(sfu);
    ProducerOptions options;
    options.track = endpoint->cameraTrack(640, 360);
    options.encodings = threeLayers();
    auto camera = endpoint->produce(std::move(options));
    auto picture = endpoint->watch(endpoint->consume(camera->id()));
    // About where the first look at the estimate happens.
    ASSERT_TRUE(picture->waitForReadings(6 + round));
    if (round % 2) camera->close();
    endpoint.reset();
    EXPECT_TRUE(camera->closed());
  }
}

}  // namespace
}  // namespace kestrova::test
