#pragma once

#include <kestrova/media/MediaRegistry.h>
#include <kestrova/monitoring/TransportMonitor.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// The device and the two transports of one room client: loads the device with the router's
/// capabilities, makes the transports, answers their callbacks and takes them down.
///
/// A transport whose connection failed is repaired only by the service or by the reconnect of the
/// signalling connection, never from here.
class Transports : public SendTransportDelegate, public std::enable_shared_from_this<Transports> {
public:
  Transports(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry,
             std::shared_ptr<TransportMonitor> monitor);

  const std::shared_ptr<Device>& device() const { return _device; }
  std::shared_ptr<SendTransport> sendTransport() const;
  std::shared_ptr<ReceiveTransport> receiveTransport() const;
  /// The codecs of the loaded device, each as mediasoup's model describes one.
  List deviceCodecs() const;

  /// Loads the device if that is still due and makes the transports asked for, send before receive.
  /// Ends quietly when `connection` goes meanwhile.
  /// \param isLoaded false when a connection begins: transports of an earlier one are given up,
  ///   since the service has forgotten them
  Task<void> setupDeviceAndTransports(bool isLoaded, std::optional<SpanScope> changeModeSpan,
                                      bool needToCreateSendTransport,
                                      bool needToCreateRecvTransport, Connection connection);
  /// Gives each transport of that id the service's new ICE parameters and tells the service so,
  /// also when the engine refused them.
  Task<void> handleRemoteRestartIce(std::string transportId, Dictionary iceParams);
  /// What a lost connection leaves to be closed.
  struct Lost {
    std::vector<std::shared_ptr<Consumer>> consumers;
    std::shared_ptr<SendTransport> send;
    std::shared_ptr<ReceiveTransport> receive;
  };
  /// Takes the consumers and the live transports out, so that the next connection finds room for
  /// its own. On the socket's queue, at the drop.
  Lost takeLost();
  /// Closes what was taken. Any thread; returns without waiting for the transports.
  void disposeTransports(const Lost& lost, std::optional<SpanScope> parentSpan);
  /// Closes, on the main queue, the transports that a mode does without.
  void closeUnusedIn(Mode mode);
  /// Closes both transports on the main queue, send before receive. One that is being made just now
  /// is closed as soon as it is there, since its connection is over.
  void closeTransports();

  void onConnect(const std::shared_ptr<Transport>& transport,
                 const std::string& dtlsParameters) override;
  void onProduce(const std::shared_ptr<SendTransport>& transport, MediaKind kind,
                 const std::string& rtpParameters, const std::string& appData,
                 ProduceCallback callback) override;
  void onConnectionStateChange(const std::shared_ptr<Transport>& transport,
                               TransportConnectionState state) override;

private:
  enum class Role { send, receive };
  template <class T>
  struct Slot {
    std::shared_ptr<T> transport;
    std::optional<Connection> connection = {};  // whose transport it is
    std::optional<Connection> creating = {};    // for which one is being made
  };

  struct Both {
    std::shared_ptr<SendTransport> send = {};
    std::shared_ptr<ReceiveTransport> receive = {};
  };
  /// Empties the slots asked for and gives what was in them.
  Both take(bool send, bool receive);
  static void closeOnMain(Both transports);
  Task<bool> loadDevice(bool isLoaded, std::string routerCapabilities, ScopedSpan& span);
  Task<void> createSendTransport(std::optional<SpanScope> parentSpan, Connection connection);
  Task<void> createReceiveTransport(std::optional<SpanScope> parentSpan, Connection connection);
  Task<void> produce(std::string transportId, MediaKind kind, std::string rtpParameters,
                     std::string appData, ProduceCallback callback);
  template <class T>
  Task<void> restartIce(std::shared_ptr<T> transport, std::string iceParameters,
                        const char* failure, Connection connection);
  template <class T>
  bool keep(Slot<T>& slot, std::shared_ptr<T> transport, const Connection& connection);
  Role roleOf(const std::string& transportId) const;
  /// That of a transport in use; nothing for any other.
  std::optional<Connection> connectionOf(const std::string& transportId) const;
  std::optional<SpanScope> spanOf(Role role) const;

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<MediaRegistry> _registry;
  const std::shared_ptr<TransportMonitor> _monitor;
  const std::shared_ptr<Device> _device;

  // Held for reading and writing the slots only, never across a request or a call of the device.
  mutable std::mutex _transportLock;
  Slot<SendTransport> _send;
  Slot<ReceiveTransport> _receive;
  List _deviceCapabilitiesJson;
};

/// The service's description of a transport that it made, from its reply; nothing when a piece of
/// it is missing or of another type.
std::optional<TransportDetails> getTransportDetails(const Dictionary& reply);

}  // namespace kestrova
