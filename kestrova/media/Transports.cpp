#include <kestrova/media/ConsumerClosing.h>
#include <kestrova/media/Transports.h>
#include <kestrova/signalling/DeviceInfo.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

constexpr const char* videoOrientation = "urn:3gpp:video-orientation";

std::string_view stateText(TransportConnectionState state) {
  constexpr EnumTexts<TransportConnectionState, 7> texts{
      {"NEW", "CHECKING", "CONNECTED", "COMPLETED", "FAILED", "DISCONNECTED", "CLOSED"}};
  return texts(state);
}

/// The list under `key`, if everything in it is a dictionary.
const List* dictionaries(const Dictionary& container, std::string_view key) {
  const auto* found = list(container, key);
  const auto isObject = [](const Value& entry) { return entry.is_object(); };
  return found && std::all_of(found->begin(), found->end(), isObject) ? found : nullptr;
}

/// Orientation travels in no header extension here, so the device must never negotiate it.
void removeVideoOrientation(Dictionary& capabilities) {
  const auto* extensions = dictionaries(capabilities, "headerExtensions");
  if (!extensions) return;
  List kept;
  for (const auto& extension : *extensions)
    if (text(extension.get_object(), "uri", "") != videoOrientation) kept.push_back(extension);
  capabilities["headerExtensions"] = std::move(kept);
}

bool isLive(TransportConnectionState state) {
  return state == TransportConnectionState::connected ||
         state == TransportConnectionState::completed ||
         state == TransportConnectionState::checking || state == TransportConnectionState::new_;
}

template <class T>
void closeTransportOnMain(std::shared_ptr<T> transport) {
  auto close = [transport = std::move(transport)] {
    transport->setDelegate({});
    if (!transport->closed()) transport->close();
  };
  if (MainQueue::shared().isCurrent())
    close();
  else
    MainQueue::shared().async(std::move(close));
}

}  // namespace

std::optional<TransportDetails> getTransportDetails(const Dictionary& reply) {
  const auto* data = dictionary(reply, "data");
  if (!data) return std::nullopt;
  auto id = text(*data, "id");
  const auto* iceParameters = dictionary(*data, "iceParameters");
  const auto* iceCandidates = dictionaries(*data, "iceCandidates");
  const auto* dtlsParameters = dictionary(*data, "dtlsParameters");
  if (!id || !iceParameters || !iceCandidates || !dtlsParameters) return std::nullopt;
  return TransportDetails{.id = std::move(*id),
                          .iceParameters = jsonText(*iceParameters).value_or(""),
                          .iceCandidates = jsonText(Value(*iceCandidates)).value_or(""),
                          .dtlsParameters = jsonText(*dtlsParameters).value_or("")};
}

Transports::Transports(std::shared_ptr<RoomContext> context,
                       std::shared_ptr<MediaRegistry> registry,
                       std::shared_ptr<TransportMonitor> monitor)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _monitor(std::move(monitor)),
      _device(_context->platform->makeDevice()) {}

std::shared_ptr<SendTransport> Transports::sendTransport() const {
  std::scoped_lock held(_transportLock);
  return _send.transport;
}

std::shared_ptr<ReceiveTransport> Transports::receiveTransport() const {
  std::scoped_lock held(_transportLock);
  return _receive.transport;
}

List Transports::deviceCodecs() const {
  std::scoped_lock held(_transportLock);
  return _deviceCapabilitiesJson;
}

// ---- Set-up ------------------------------------------------------------------------------------

Task<void> Transports::setupDeviceAndTransports(bool isLoaded,
                                                std::optional<SpanScope> changeModeSpan,
                                                bool needToCreateSendTransport,
                                                bool needToCreateRecvTransport,
                                                Connection connection) {
  const auto self = shared_from_this();
  std::string capabilities;
  {
    ScopedSpan span("Loading device capabilities", {{"device", DeviceInfo::toStringify()}},
                    changeModeSpan);
    const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
        LocalEvent::getRouterRtpCapabilities, {}, connection);
    if (!connection.isCurrent()) {
      span.interruptByDrop();
      co_return;
    }
    const auto* data = dictionary(reply, "data");
    if (!data) {
      span.fail("Failed to load device capabilities");
      co_return;
    }
    Dictionary routerCapabilities = *data;
    removeVideoOrientation(routerCapabilities);
    capabilities = jsonText(routerCapabilities).value_or("");
    if (capabilities.empty()) {
      span.interrupt("the router's capabilities make no text");
      co_return;
    }
    if (!co_await loadDevice(isLoaded, capabilities, span)) co_return;
  }
  if (!isLoaded) take(true, true);  // given up, not closed
  if (needToCreateSendTransport && !sendTransport())
    co_await createSendTransport(changeModeSpan, connection);
  if (!connection.isCurrent()) co_return;
  if (needToCreateRecvTransport && !receiveTransport())
    co_await createReceiveTransport(changeModeSpan, connection);
}

Task<bool> Transports::loadDevice(bool isLoaded, std::string routerCapabilities, ScopedSpan& span) {
  if (isLoaded || _device->isLoaded()) {
    span.event("Device Capabilities Already Loaded");
    co_return true;
  }
  try {
    _device->load(routerCapabilities);
    const auto own = parseDictionary(_device->rtpCapabilities());
    const auto* codecs = dictionaries(own, "codecs");
    std::scoped_lock held(_transportLock);
    _deviceCapabilitiesJson = codecs ? *codecs : List();
  } catch (const std::exception& error) {
    const std::string_view cause = error.what();
    span.fail("Failed to load device capabilities with an error.", {{"error", cause}});
    traceError("Could not join the room due to an error.", {{"error", cause}}, span.scope());
    co_return false;
  }
  span.event("Device Capabilities Loaded", {{"routerRTPCapabilities", routerCapabilities}});
  co_return true;
}

namespace {

/// Claims a slot's creation for as long as it lives and its connection stands; several callers at
/// once make one transport.
template <class Slot>
class CreationClaim {
public:
  CreationClaim(std::mutex& lock, Slot& slot, Connection connection)
      : _lock(lock), _slot(slot), _connection(std::move(connection)) {
    std::scoped_lock held(_lock);
    _granted = !_slot.transport && !(_slot.creating && _slot.creating->isCurrent());
    if (_granted) _slot.creating = _connection;
  }
  ~CreationClaim() {
    if (!_granted) return;
    std::scoped_lock held(_lock);
    if (_slot.creating == _connection) _slot.creating.reset();
  }
  CreationClaim(const CreationClaim&) = delete;
  CreationClaim& operator=(const CreationClaim&) = delete;
  bool granted() const { return _granted; }

private:
  std::mutex& _lock;
  Slot& _slot;
  const Connection _connection;
  bool _granted = false;
};

/// The span of a transport's creation, which was given up unless it is told otherwise. It stays as
/// parent of what happens to the transport.
class CreationSpan {
public:
  CreationSpan(RoomSpans& spans, RoomSpans::Slot slot, const char* name, ParentSpan parent)
      : scope(openSpan(name, {}, parent)), _spans(spans), _slot(slot) {}
  ~CreationSpan() {
    const EndSpanOptions end{.success = _cause.empty(), .message = _cause};
    if (_number)
      _spans.finish(_slot, *_number, end);
    else
      SdkTracer::shared().endSpan(scope, end);
  }
  CreationSpan(const CreationSpan&) = delete;
  CreationSpan& operator=(const CreationSpan&) = delete;

  void keep() {
    _number = _spans.set(_slot, scope);
    _cause = "interrupted by the loss of the connection";
  }
  void succeed(const char* line) {
    trace(line, {}, scope);
    _cause.clear();
  }
  void refuse(std::string cause) { _cause = std::move(cause); }
  void fail(std::string line) {
    traceError(line, {}, scope);
    refuse(std::move(line));
  }

  const SpanScope scope;

private:
  RoomSpans& _spans;
  const RoomSpans::Slot _slot;
  std::optional<int> _number;
  std::string _cause = "refused: a creation is under way";
};

}  // namespace

/// Fills the slot, unless the connection went meanwhile: then nobody needs the transport.
template <class T>
bool Transports::keep(Slot<T>& slot, std::shared_ptr<T> transport, const Connection& connection) {
  {
    std::scoped_lock held(_transportLock);
    if (connection.isCurrent() && !slot.transport) {
      slot.transport.swap(transport);
      slot.connection = connection;
    }
  }
  if (!transport) return true;
  closeTransportOnMain(std::move(transport));
  return false;
}

Task<void> Transports::createSendTransport(std::optional<SpanScope> parentSpan,
                                           Connection connection) {
  const auto self = shared_from_this();
  CreationSpan span(_context->spans, RoomSpans::Slot::producerTransport,
                    "Creating Send Media Transport", parentSpan);
  const CreationClaim claim(_transportLock, _send, connection);
  if (!claim.granted()) co_return;
  span.keep();

  const Dictionary reply = co_await _context->socketRequestHandler->createWebRTCTransport(
      _context->options.preferredProtocol, true, false, connection);
  if (!connection.isCurrent() || sendTransport()) co_return;
  const auto details = getTransportDetails(reply);
  if (!details) co_return span.refuse("the service gave no transport");
  try {
    auto transport = _device->createSendTransport(*details);
    transport->setDelegate(weak_from_this());
    if (!keep(_send, std::move(transport), connection)) co_return;
  } catch (const std::exception& error) {
    span.fail(std::string("error while creating sendTransport: ") + error.what());
    co_return;
  }
  span.succeed("Send Transport Created Successfully");
  const auto made = sendTransport();
  _monitor->replaceSendProbe(made);
  if (sendTransport() != made) _monitor->forget(made);  // it was taken meanwhile
}

Task<void> Transports::createReceiveTransport(std::optional<SpanScope> parentSpan,
                                              Connection connection) {
  const auto self = shared_from_this();
  CreationSpan span(_context->spans, RoomSpans::Slot::consumerTransport,
                    "Creating Receive Media Transport", parentSpan);
  const CreationClaim claim(_transportLock, _receive, connection);
  if (!claim.granted()) co_return;
  span.keep();

  const Dictionary reply = co_await _context->socketRequestHandler->createWebRTCTransport(
      _context->options.preferredProtocol, false, true, connection);
  if (!connection.isCurrent()) co_return;
  const auto details = getTransportDetails(reply);
  if (!details) co_return span.refuse("the service gave no transport");
  try {
    auto transport = _device->createReceiveTransport(*details);
    transport->setDelegate(std::weak_ptr<TransportDelegate>(weak_from_this()));
    if (!keep(_receive, std::move(transport), connection)) co_return;
  } catch (const std::exception& error) {
    span.fail(std::string("error while creating recvTransport: ") + error.what());
    co_return;
  }
  span.succeed("Receive Transport Created Successfully");
  const auto made = receiveTransport();
  _monitor->replaceRecvProbe(made);
  if (receiveTransport() != made) _monitor->forget(made);
}

// ---- Callbacks of the transports ---------------------------------------------------------------

Transports::Role Transports::roleOf(const std::string& transportId) const {
  const auto send = sendTransport();
  return send && send->id() == transportId ? Role::send : Role::receive;
}

std::optional<Connection> Transports::connectionOf(const std::string& transportId) const {
  Slot<SendTransport> send;
  Slot<ReceiveTransport> receive;
  {
    std::scoped_lock held(_transportLock);
    send = _send;
    receive = _receive;
  }
  if (send.transport && send.transport->id() == transportId) return send.connection;
  if (receive.transport && receive.transport->id() == transportId) return receive.connection;
  return std::nullopt;
}

std::optional<SpanScope> Transports::spanOf(Role role) const {
  return _context->spans.get(role == Role::send ? RoomSpans::Slot::producerTransport
                                                : RoomSpans::Slot::consumerTransport);
}

void Transports::onConnect(const std::shared_ptr<Transport>& transport,
                           const std::string& dtlsParameters) {
  auto task = [](std::weak_ptr<Transports> weak, std::string id,
                 std::string parameters) -> Task<void> {
    const auto self = weak.lock();
    const auto connection = self ? self->connectionOf(id) : std::nullopt;
    if (!connection) co_return;
    trace("Establishing connection: ICE+DTLS ", {}, self->spanOf(self->roleOf(id)));
    Dictionary dtls = parseDictionary(parameters);
    co_await self->_context->socketRequestHandler->connectWebRTCTransport(
        std::move(id), std::move(dtls), *connection);
  };
  spawn(task(weak_from_this(), transport->id(), dtlsParameters));
}

void Transports::onProduce(const std::shared_ptr<SendTransport>& transport, MediaKind kind,
                           const std::string& rtpParameters, const std::string& appData,
                           ProduceCallback callback) {
  auto task = [](std::weak_ptr<Transports> weak, std::string id, MediaKind medium,
                 std::string parameters, std::string data, ProduceCallback answer) -> Task<void> {
    if (const auto self = weak.lock())
      co_await self->produce(std::move(id), medium, std::move(parameters), std::move(data),
                             std::move(answer));
  };
  spawn(task(weak_from_this(), transport->id(), kind, rtpParameters, appData, std::move(callback)));
}

Task<void> Transports::produce(std::string transportId, MediaKind kind, std::string rtpParameters,
                               std::string appData, ProduceCallback callback) {
  const auto connection = connectionOf(transportId);
  if (!connection) {
    callback(std::nullopt);
    co_return;
  }
  Dictionary request{{"transportId", transportId},
                     {"kind", kind == MediaKind::video ? "video" : "audio"},
                     {"rtpParameters", parseDictionary(rtpParameters)},
                     {"appData", parseDictionary(appData)}};
  const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
      LocalEvent::produce, std::move(request), *connection);
  if (!connection->isCurrent()) {
    callback(std::nullopt);
    co_return;
  }
  const auto* data = dictionary(reply, "data");
  auto id = data ? text(*data, "id") : std::nullopt;
  const auto role = roleOf(transportId);
  if (!id) {
    traceRouted([&] {
      return std::string("Error in produce event of ") + (role == Role::send ? "Send" : "Receive") +
             " Media Transport ";
    });
    callback(std::nullopt);
    co_return;
  }
  const auto span = _context->spans.take(RoomSpans::Slot::current);
  if (role == Role::send)
    trace(kind == MediaKind::video ? "Starting Video Stream Negotiation"
                                   : "Starting Audio Stream Negotiation",
          {}, span);
  callback(std::move(id));
}

void Transports::onConnectionStateChange(const std::shared_ptr<Transport>& transport,
                                         TransportConnectionState state) {
  if (state == TransportConnectionState::failed) return;
  const auto role = roleOf(transport->id());
  trace(
      [&] {
        // The second word is spelled as the service's dashboards know it.
        return std::string(role == Role::send ? "Send" : "Recieve") +
               " Media Transport State: " + std::string(stateText(state));
      },
      {}, spanOf(role));
  if (_context->joined() || state != TransportConnectionState::disconnected) return;
  const auto dropAll = [](const auto& streams) {
    for (const auto& stream : streams) {
      if (!stream->closed()) stream->close();
      stream->setDelegate({});
    }
  };
  if (role == Role::send)
    dropAll(_registry->producers());
  else
    dropAll(_registry->consumers());
}

// ---- Restarts ----------------------------------------------------------------------------------

Task<void> Transports::handleRemoteRestartIce(std::string transportId, Dictionary iceParams) {
  const auto self = shared_from_this();
  const auto connection = _context->connections->current();
  const auto parameters = jsonText(iceParams).value_or("");
  if (const auto send = sendTransport(); send && send->id() == transportId) {
    auto restarting =
        restartIce(send, parameters, "Error while send transport restartICE.", connection);
    co_await std::move(restarting);
  }
  if (const auto receive = receiveTransport(); receive && receive->id() == transportId) {
    auto restarting =
        restartIce(receive, parameters, "Error while recv transport restartICE.", connection);
    co_await std::move(restarting);
  }
}

template <class T>
Task<void> Transports::restartIce(std::shared_ptr<T> transport, std::string iceParameters,
                                  const char* failure, Connection connection) {
  try {
    transport->restartICE(iceParameters);
  } catch (const std::exception& error) {
    traceRouted(failure, {{"error", std::string_view(error.what())}});
  }
  Dictionary data{{"transportId", transport->id()}};
  const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
      LocalEvent::iceRestarted, std::move(data), connection);
  if (const auto status = isStatusOK(reply); !status.ok && connection.isCurrent())
    traceRouted("Error while iceRestarted request.", {{"error", status.failure}});
}

// ---- Taking down -------------------------------------------------------------------------------

Transports::Lost Transports::takeLost() {
  auto send = sendTransport();
  auto receive = receiveTransport();
  if (send && !isLive(send->connectionState())) send.reset();
  if (receive && !isLive(receive->connectionState())) receive.reset();
  {
    std::scoped_lock held(_transportLock);
    if (send) _send.transport.reset();
    if (receive) _receive.transport.reset();
  }
  _monitor->forget(send);
  _monitor->forget(receive);
  return {_registry->takeConsumers(), std::move(send), std::move(receive)};
}

void Transports::disposeTransports(const Lost& lost, std::optional<SpanScope> parentSpan) {
  ScopedSpan span("Closing resources", {}, parentSpan);
  const auto close = lost.receive ? letGoOfConsumer : closeConsumer;
  for (const auto& consumer : lost.consumers) close(*_context, consumer);
  closeOnMain({lost.send, lost.receive});
  span.event("All resources closed successfully");
}

Transports::Both Transports::take(bool send, bool receive) {
  Both taken;
  {
    std::scoped_lock held(_transportLock);
    if (send) taken.send.swap(_send.transport);
    if (receive) taken.receive.swap(_receive.transport);
  }
  _monitor->forget(taken.send);
  _monitor->forget(taken.receive);
  return taken;
}

void Transports::closeOnMain(Both transports) {
  if (transports.send) closeTransportOnMain(std::move(transports.send));
  if (transports.receive) closeTransportOnMain(std::move(transports.receive));
}

void Transports::closeUnusedIn(Mode mode) {
  closeOnMain(take(!sendsMedia(mode), !receivesMedia(mode)));
}

void Transports::closeTransports() {
  closeOnMain(take(true, true));
  _monitor->removeAllProbes();
}

}  // namespace kestrova
