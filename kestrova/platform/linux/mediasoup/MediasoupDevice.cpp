#include <kestrova/platform/linux/mediasoup/MediasoupDevice.h>
#include <kestrova/platform/linux/mediasoup/Ortc.h>
#include <kestrova/platform/linux/mediasoup/PeerConnection.h>
#include <kestrova/platform/linux/mediasoup/ReceiveTransportImpl.h>
#include <kestrova/platform/linux/mediasoup/SdpReader.h>
#include <kestrova/platform/linux/mediasoup/SendTransportImpl.h>

#include <mutex>

namespace kestrova {
namespace {

using namespace mediasoup;

/// What the engine is able to do, read out of an offer that goes nowhere.
RtpCapabilities engineCapabilities(Engine& engine) {
  PeerConnection connection(engine, {}, ICETransportPolicy::all, nullptr);
  for (const auto kind : {cricket::MEDIA_TYPE_AUDIO, cricket::MEDIA_TYPE_VIDEO}) {
    const auto added = connection.engine().AddTransceiver(kind);
    if (!added.ok()) throw MediasoupError("the WebRTC engine has no capabilities");
  }
  return offeredCapabilities(parseSdp(connection.createOffer()));
}

class MediasoupDevice final : public Device {
public:
  bool isLoaded() const override {
    std::scoped_lock held(_lock);
    return _engine != nullptr;
  }

  void load(const std::string& routerRtpCapabilities) override {
    if (isLoaded()) throw MediasoupError("the device is loaded already");
    const auto router = parseRtpCapabilities(routerRtpCapabilities);
    refuseEngineCallback("load");
    auto engine = Engine::shared();
    const auto own = engine->thread().run([&] { return engineCapabilities(*engine); });
    auto common = commonCapabilities(own, router);
    std::scoped_lock held(_lock);
    if (_engine) throw MediasoupError("the device is loaded already");
    _common = std::move(common);
    _engine = std::move(engine);
  }

  std::string rtpCapabilities() const override {
    return toJson(receivingCapabilities(loaded().common));
  }

  bool canProduce(MediaKind kind) const override { return canSend(loaded().common, kind); }

  std::shared_ptr<SendTransport> createSendTransport(const TransportDetails& details) override {
    auto [engine, common] = loaded();
    return SendTransportImpl::make(std::move(engine), details, std::move(common));
  }

  std::shared_ptr<ReceiveTransport> createReceiveTransport(
      const TransportDetails& details) override {
    auto [engine, common] = loaded();
    return ReceiveTransportImpl::make(std::move(engine), details, std::move(common));
  }

private:
  struct Loaded {
    std::shared_ptr<Engine> engine;
    CommonCapabilities common;
  };
  Loaded loaded() const {
    std::scoped_lock held(_lock);
    if (!_engine) throw MediasoupError("the device is not loaded");
    return {_engine, _common};
  }

  mutable std::mutex _lock;
  std::shared_ptr<Engine> _engine;  // set once loaded
  CommonCapabilities _common;
};

}  // namespace

std::shared_ptr<Device> makeDevice() {
  return std::make_shared<MediasoupDevice>();
}

}  // namespace kestrova
