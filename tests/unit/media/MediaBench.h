#pragma once

#include <kestrova/media/BroadcastCapturer.h>
#include <kestrova/media/ConsumerControls.h>
#include <kestrova/media/Consuming.h>
#include <kestrova/media/Publishing.h>
#include <kestrova/media/Transports.h>

#include <tests/support/ScriptedSocket.h>
#include <tests/support/TestPlatform.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrova::test {

/// The pieces that carry media, on a socket that stands, with no meeting behind them.
struct MediaBench {
  explicit MediaBench(TestPlatform& p) : platform(p) {
    context->socketRequestHandler->connect("https://signal.test", "/socket.io", openSpan("bench"));
    platform.service->socket()->open();
    platform.pump();
  }

  void setUp(bool isLoaded = false) {
    platform.run(
        transports->setupDeviceAndTransports(isLoaded, std::nullopt, true, true, connection()));
  }
  Connection connection() const { return context->connections->current(); }
  /// As at a drop.
  void dispose() {
    context->connections->lost();
    transports->disposeTransports(transports->takeLost(), std::nullopt);
  }
  std::shared_ptr<ScriptedProducer> addProducer(const std::string& id, bool share) {
    const auto track = std::make_shared<ScriptedVideoTrack>("track-" + id);
    auto producer = std::make_shared<ScriptedProducer>(
        platform.media, id,
        ProducerOptions{.track = track, .appData = share ? R"({"share":true})" : "no json"});
    registry->add(producer);
    return producer;
  }
  std::shared_ptr<ScriptedConsumer> addConsumer(const std::string& id) {
    auto consumer =
        std::make_shared<ScriptedConsumer>(platform.media, id, "p-" + id, MediaKind::video, "{}");
    registry->add(consumer);
    return consumer;
  }

  TestPlatform& platform;
  const std::shared_ptr<RoomContext> context =
      std::make_shared<RoomContext>(RoomClientOptions{.meeting = {.localParticipantId = "me"}});
  const std::shared_ptr<MediaRegistry> registry =
      std::make_shared<MediaRegistry>(context->stateQueue);
  const std::shared_ptr<MediaCapturer> capturer = MediaCapturer::make();
  const std::shared_ptr<BroadcastCapturer> broadcast = BroadcastCapturer::make();
  const std::shared_ptr<Transports> transports = std::make_shared<Transports>(
      context, registry, std::make_shared<TransportMonitor>(context, registry));
  const std::shared_ptr<Publishing> publishing =
      std::make_shared<Publishing>(context, registry, transports, capturer, broadcast);
  const std::shared_ptr<Consuming> consuming =
      std::make_shared<Consuming>(context, registry, transports);
};

}  // namespace kestrova::test
