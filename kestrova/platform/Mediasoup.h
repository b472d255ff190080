#pragma once

#include <kestrova/platform/MediaKind.h>
#include <kestrova/platform/TaskFwd.h>
#include <kestrova/platform/ValuesFwd.h>
#include <kestrova/platform/WebRTC.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrova {

enum class TransportConnectionState {
  new_,
  checking,
  connected,
  completed,
  failed,
  disconnected,
  closed
};
enum class ICETransportPolicy { all, relay };

/// A refused operation of the media layer; `what()` says which and why.
struct MediasoupError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Producer;
class Consumer;
class SendTransport;
class ReceiveTransport;

class ProducerDelegate {
public:
  virtual ~ProducerDelegate() = default;
  virtual void onTransportClose(const std::shared_ptr<Producer>& producer) = 0;
};

class ConsumerDelegate {
public:
  virtual ~ConsumerDelegate() = default;
  virtual void onTransportClose(const std::shared_ptr<Consumer>& consumer) = 0;
};

/// One published or received track. Texts are JSON. Thread-safe; nothing waits for the engine.
class RtpStream {
public:
  virtual ~RtpStream() = default;
  virtual std::string id() const = 0;
  virtual MediaKind kind() const = 0;
  virtual std::shared_ptr<RTCMediaStreamTrack> track() const = 0;
  virtual std::string appData() const = 0;
  virtual bool closed() const = 0;
  virtual bool paused() const = 0;
  virtual void pause() = 0;
  virtual void resume() = 0;
  /// Nothing of it is heard or seen any more, at once; a consumer's track is switched off. Its end
  /// is negotiated afterwards, in order with what is asked of the transport later, and not at all
  /// once that is closed.
  virtual void close() = 0;
  /// Statistics as JSON text of a list of objects, each with "type" and "id", as the W3C's
  /// webrtc-stats identifiers name them; an empty list once it is closed.
  virtual Task<std::string> stats() = 0;
};

class Producer : public RtpStream {
public:
  virtual std::shared_ptr<RTCRtpSender> rtpSender() const = 0;
  virtual void setDelegate(std::weak_ptr<ProducerDelegate> delegate) = 0;
};

class Consumer : public RtpStream {
public:
  virtual std::shared_ptr<RTCRtpReceiver> rtpReceiver() const = 0;
  virtual std::string producerId() const = 0;
  virtual void setDelegate(std::weak_ptr<ConsumerDelegate> delegate) = 0;
};

/// Both transports: an ICE, DTLS and SRTP connection to the media server.
class Transport {
public:
  virtual ~Transport() = default;
  virtual std::string id() const = 0;
  virtual TransportConnectionState connectionState() const = 0;
  virtual bool closed() const = 0;
  /// Closes every producer or consumer on it, and returns at once: the engine ends the connection
  /// as a whole, soon. That costs the same for one stream and for fifty, so do not close its
  /// streams first. What is being negotiated fails. Call it on the main queue.
  virtual void close() = 0;
  /// \param iceParameters JSON text of the server's new ICE parameters
  /// \throws MediasoupError
  virtual void restartICE(const std::string& iceParameters) = 0;
  /// Those of the connection and of all its streams, as a stream gives them.
  virtual Task<std::string> stats() = 0;
  /// The same read: an empty list when the text is none. Cheaper where the engine has no need of
  /// the text.
  virtual Task<List> statsList();
};

/// Callbacks come on threads of the media layer and must not block.
class TransportDelegate {
public:
  virtual ~TransportDelegate() = default;
  /// Raised once, when the first producer or consumer is made; `dtlsParameters` is JSON text. The
  /// connection goes on by itself once the server has them.
  virtual void onConnect(const std::shared_ptr<Transport>& transport,
                         const std::string& dtlsParameters) = 0;
  virtual void onConnectionStateChange(const std::shared_ptr<Transport>& transport,
                                       TransportConnectionState state) = 0;
};

class SendTransportDelegate : public TransportDelegate {
public:
  /// Answer by calling `callback` once, from any thread, with the server's producer id, or with
  /// nothing to make `createProducer` fail. Dropping the callback counts as nothing.
  using ProduceCallback = std::function<void(std::optional<std::string> producerId)>;
  virtual void onProduce(const std::shared_ptr<SendTransport>& transport, MediaKind kind,
                         const std::string& rtpParameters, const std::string& appData,
                         ProduceCallback callback) = 0;
};

/// What `createProducer` publishes and how. JSON texts are optional; empty means none. Without a
/// codec, video is VP8 where server and endpoint have it, else the server's first.
struct ProducerOptions {
  std::shared_ptr<RTCMediaStreamTrack> track;
  std::vector<RTCRtpEncodingParameters> encodings;
  std::string codecOptions;
  std::string codec;
  std::string appData;
  /// Nothing of it is sent but what a frame cryptor has encrypted.
  bool encrypted = false;
};

class SendTransport : public Transport {
public:
  virtual void setDelegate(std::weak_ptr<SendTransportDelegate> delegate) = 0;
  /// Negotiates a sender for the track and asks the delegate for the server's producer id.
  /// Several calls at once are carried out one after the other. Fails promptly when the transport
  /// closes, whatever it waits for. The transport lives as long as the task.
  /// \throws MediasoupError; the transport is then as it was before.
  virtual Task<std::shared_ptr<Producer>> createProducer(ProducerOptions options) = 0;
};

class ReceiveTransport : public Transport {
public:
  virtual void setDelegate(std::weak_ptr<TransportDelegate> delegate) = 0;
  /// Negotiates a receiver and waits for the engine (some ms). `rtpParameters` and `appData` are
  /// JSON texts. Calls from several threads are carried out one after the other.
  /// \param encrypted whether nothing of it is played but what a frame cryptor lets through
  /// \throws MediasoupError; the transport is then as it was before.
  virtual std::shared_ptr<Consumer> consume(const std::string& consumerId,
                                            const std::string& producerId, MediaKind kind,
                                            const std::string& rtpParameters,
                                            const std::string& appData, bool encrypted = false) = 0;
};

/// What a server said of the transport that it made; JSON texts.
struct TransportDetails {
  std::string id;
  std::string iceParameters;
  std::string iceCandidates;
  std::string dtlsParameters;
  std::string sctpParameters;
  std::string iceServers;
  ICETransportPolicy iceTransportPolicy = ICETransportPolicy::all;
  std::string appData;
};

/// The endpoint's media capabilities, matched with those of the server's router. Thread-safe.
/// Model and JSON shapes: mediasoup's "RTP Parameters and Capabilities" document.
class Device {
public:
  virtual ~Device() = default;
  virtual bool isLoaded() const = 0;
  /// \param routerRtpCapabilities JSON text
  /// \throws MediasoupError, also where the engine cannot be made
  virtual void load(const std::string& routerRtpCapabilities) = 0;
  /// The endpoint's receiving capabilities as JSON text. \throws MediasoupError before `load`
  virtual std::string rtpCapabilities() const = 0;
  /// \throws MediasoupError before `load`
  virtual bool canProduce(MediaKind kind) const = 0;
  /// \throws MediasoupError before `load`, or when the details make no sense
  virtual std::shared_ptr<SendTransport> createSendTransport(const TransportDetails& details) = 0;
  virtual std::shared_ptr<ReceiveTransport> createReceiveTransport(
      const TransportDetails& details) = 0;
};

}  // namespace kestrova
