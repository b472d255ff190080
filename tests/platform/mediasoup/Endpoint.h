#pragma once

#include <kestrova/platform/Capture.h>
#include <kestrova/platform/Mediasoup.h>

#include "Sfu.h"
#include <condition_variable>
#include <future>
#include <mutex>
#include <vector>

namespace kestrova::test {

using std::chrono::milliseconds;
constexpr auto kPatience = std::chrono::seconds(15);

/// Runs a task to its end on a background executor and gives its result or throws its exception.
template <class T>
T await(Task<T> task);

/// Looks at received test pictures: reads their clock.
class ClockWatch final : public VideoSink {
public:
  void onFrame(const VideoFrame& frame) override;
  /// Waits until `count` more pictures with a readable clock have come.
  bool waitForReadings(int count, std::chrono::milliseconds patience = kPatience);
  /// Waits for a picture at least this wide.
  bool waitForWidth(int width, std::chrono::milliseconds patience = kPatience);

  struct Seen {
    int pictures = 0;
    int readings = 0;
    int backwards = 0;  ///< readings older than the one before
    int width = 0;
    std::int64_t latencyMs = 0;  ///< of the last reading
  };
  Seen seen();
  /// Called on the engine's thread with each picture.
  std::function<void()> onPicture;

private:
  std::mutex _lock;
  std::condition_variable _wake;
  Seen _seen;
  std::int64_t _last = 0;
};

/// Looks at received sound: collects what is not silence and measures how much of it is one tone.
class ToneWatch final : public AudioSink {
public:
  void onData(const AudioData& data) override;
  /// The share of the energy of the next half second that lies at `hz`, 0 to 1; nothing without
  /// sound.
  std::optional<double> purity(double hz, std::chrono::milliseconds patience = kPatience);

private:
  std::mutex _lock;
  std::condition_variable _wake;
  std::vector<double> _samples;
  int _rate = 0;
  bool _collecting = false;
};

/// One participant: a device with a send and a receive transport on a media server.
class Endpoint : public SendTransportDelegate, public std::enable_shared_from_this<Endpoint> {
public:
  static std::shared_ptr<Endpoint> make(Sfu& sfu, bool tcp = false);
  ~Endpoint() override;

  std::shared_ptr<RTCVideoTrack> cameraTrack(int width = 1280, int height = 720);
  std::shared_ptr<RTCAudioTrack> toneTrack(double hz);
  std::shared_ptr<Producer> produce(ProducerOptions options);
  /// Consumes at the server and here, and lets the media flow.
  std::shared_ptr<Consumer> consume(const std::string& producerId, bool encrypted = false);
  /// As `consume`, watched.
  std::shared_ptr<ClockWatch> watch(const std::shared_ptr<Consumer>& consumer);
  std::shared_ptr<ToneWatch> listen(const std::shared_ptr<Consumer>& consumer);
  /// The device's capability for a codec as JSON text.
  std::string codec(const std::string& mimeType) const;

  void onConnect(const std::shared_ptr<Transport>& transport,
                 const std::string& dtlsParameters) override;
  void onConnectionStateChange(const std::shared_ptr<Transport>& transport,
                               TransportConnectionState state) override;
  void onProduce(const std::shared_ptr<SendTransport>& transport, MediaKind kind,
                 const std::string& rtpParameters, const std::string& appData,
                 ProduceCallback callback) override;

  Sfu& sfu;
  std::shared_ptr<Device> device;
  std::shared_ptr<SendTransport> sending;
  std::shared_ptr<ReceiveTransport> receiving;
  int connects = 0;
  /// Instead of asking the server, when set.
  std::function<void(ProduceCallback)> produceAnswer;

private:
  explicit Endpoint(Sfu& server) : sfu(server) {}
  TransportDetails transportDetails(bool tcp);

  std::shared_ptr<CaptureDevices> _capture;
  std::vector<std::unique_ptr<RTCCameraVideoCapturer>> _cameras;
  std::vector<std::unique_ptr<MicrophoneCapturer>> _microphones;
  std::vector<std::shared_ptr<void>> _sinks;
  std::mutex _lock;
  std::condition_variable _wake;
};

/// A device loaded with the capabilities of a real router, without a server.
std::shared_ptr<Device> loadedDevice();
std::string routerCapabilities();
/// Details of a transport that nobody serves.
TransportDetails deadTransport();
/// Installs the platform's executors once; for tests that need nothing else of it.
void installPlatform();

std::vector<RTCRtpEncodingParameters> threeLayers();

}  // namespace kestrova::test

#include <kestrova/platform/Runtime.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

template <class T>
T kestrova::test::await(Task<T> task) {
  auto result =
      boost::asio::co_spawn(Runtime::background(), std::move(task), boost::asio::use_future);
  if (result.wait_for(std::chrono::seconds(20)) != std::future_status::ready)
    throw std::runtime_error("a task does not end");
  return result.get();
}
