#include <kestrova/platform/Escaped.h>
#include <kestrova/realtime/PubSubSocket.h>
#include <kestrova/realtime/RealtimeTrace.h>
#include <kestrova/realtime/RequestIds.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestrova {
namespace {

/// Of UTF-8: all bytes but those that continue one.
std::ptrdiff_t characters(ByteView text) {
  return std::count_if(text.begin(), text.end(),
                       [](std::uint8_t byte) { return (byte & 0xC0) != 0x80; });
}

}  // namespace

std::shared_ptr<PubSubSocket> PubSubSocket::make(std::string url,
                                                 std::shared_ptr<SerialQueue> queue) {
  return std::shared_ptr<PubSubSocket>(new PubSubSocket(std::move(url), std::move(queue)));
}

PubSubSocket::PubSubSocket(std::string url, std::shared_ptr<SerialQueue> queue)
    : _url(std::move(url)), _queue(std::move(queue)) {}

PubSubSocket::~PubSubSocket() {
  // A task is the queue's to end, and the last reference may go anywhere.
  if (_task) _queue->async([task = std::move(_task)] { task->cancel(WebSocketTask::goingAway); });
}

template <class Step>
void PubSubSocket::onQueue(Step step) {
  _queue->async([weak = weak_from_this(), step = std::move(step)]() mutable {
    if (const auto self = weak.lock()) step(*self);
  });
}

void PubSubSocket::connect() {
  onQueue([](PubSubSocket& self) { self.connectLocked(); });
}

void PubSubSocket::send(Bytes frame, SendHandler completion) {
  onQueue([frame = std::move(frame), completion = std::move(completion)](
              PubSubSocket& self) mutable { self.sendLocked(std::move(frame), completion); });
}

void PubSubSocket::close(bool intentional) {
  onQueue([intentional](PubSubSocket& self) {
    traceRealtime("Socket: close requested", {{"intentional", intentional}});
    if (intentional) self._intentionalClose = true;
    self.teardownConnectionLocked(false);
  });
}

void PubSubSocket::reconnect() {
  onQueue([](PubSubSocket& self) {
    traceRealtime("Socket: forced reconnect requested (server-ping watchdog)");
    self.handleConnectionEndedLocked(self._generation);
  });
}

// ---- A connection ------------------------------------------------------------------------------

void PubSubSocket::connectLocked() {
  if (_intentionalClose) return traceRealtime("Socket: connect ignored (intentional close)");
  if (_isConnecting || _isOpen)
    return traceRealtime("Socket: connect ignored (already connecting/open)",
                         {{"isConnecting", _isConnecting}, {"isOpen", _isOpen}});
  _isConnecting = true;
  const auto generation = ++_generation;
  traceRealtime("Socket: connecting", {{"generation", generation}});
  if (_platform->makeWebSocketTask)
    _task = _platform->makeWebSocketTask(_url, _queue, events(generation));
  if (!_task)  // no such URL, which the next attempt will find, too: but the caller hears of it
    return onQueue(
        [generation](PubSubSocket& self) { self.handleConnectionEndedLocked(generation); });
  _task->resume();
  receive(generation);
}

WebSocketTask::Events PubSubSocket::events(std::uint64_t generation) {
  const auto weak = weak_from_this();
  return {.didOpen =
              [weak, generation] {
                traceRealtime("Socket: didOpen (delegate)");
                if (const auto self = weak.lock()) self->markOpenLocked(generation);
              },
          .didClose =
              [weak, generation](std::uint16_t closeCode) {
                traceRealtime("Socket: didClose (delegate)", {{"closeCode", closeCode}});
                if (const auto self = weak.lock()) self->handleConnectionEndedLocked(generation);
              },
          .didComplete =
              [weak, generation](const std::optional<WebSocketTask::Error>& error) {
                traceRealtime("Socket: didCompleteWithError (delegate)",
                              {{"error", error.value_or("none")}});
                if (const auto self = weak.lock()) self->handleConnectionEndedLocked(generation);
              }};
}

void PubSubSocket::receive(std::uint64_t generation) {
  _task->receive([weak = weak_from_this(), generation](auto result) {
    if (const auto self = weak.lock()) self->received(std::move(result), generation);
  });
}

void PubSubSocket::received(std::variant<WebSocketTask::Message, WebSocketTask::Error> result,
                            std::uint64_t generation) {
  if (generation != _generation) return;
  if (const auto* error = std::get_if<WebSocketTask::Error>(&result)) {
    traceRealtime("Socket: receive failed", {{"error", *error}});
    return handleConnectionEndedLocked(generation);
  }
  take(std::get<WebSocketTask::Message>(result));
  if (_task) receive(generation);
}

/// Never throws: the frames after this one must come in all the same.
void PubSubSocket::take(const WebSocketTask::Message& message) {
  try {
    if (message.kind == WebSocketTask::Message::Kind::data)
      traceRealtime("Socket: frame received", {{"bytes", message.bytes.size()}});
    else
      traceRealtime("Socket: text frame received (tolerated as UTF-8)",
                    {{"chars", characters(message.bytes)}});
    if (onFrame) onFrame(message.bytes);
  } catch (...) {
    reportEscaped("a frame of topic messages");
  }
}

void PubSubSocket::markOpenLocked(std::uint64_t generation) {
  if (generation != _generation)
    return traceRealtime("Socket: open ignored (superseded generation)",
                         {{"gen", generation}, {"current", _generation}});
  _isConnecting = false;
  _isOpen = true;
  _reconnectAttempt = 0;
  _isReconnectPending = false;
  ++_reconnectStep;
  traceRealtime("Socket: open", {{"generation", generation}});
  if (onOpen) onOpen();
}

void PubSubSocket::sendLocked(Bytes frame, const SendHandler& completion) {
  if (!_task || !_isOpen) {
    traceRealtime("Socket: send dropped — not connected", {{"bytes", frame.size()}});
    if (completion) completion(PubSubTransportError::notConnected);
    return;
  }
  traceRealtime("Socket: sending frame", {{"bytes", frame.size()}});
  _task->send(std::move(frame), [completion](const std::optional<WebSocketTask::Error>& error) {
    if (error) traceRealtime("Socket: send failed", {{"error", *error}});
    if (completion)
      completion(error ? std::optional(PubSubTransportError::notConnected) : std::nullopt);
  });
}

// ---- Its end -----------------------------------------------------------------------------------

/// A dying connection says so in three or four ways; the first one counts.
void PubSubSocket::handleConnectionEndedLocked(std::uint64_t generation) {
  if (generation != _generation || (!_isOpen && !_isConnecting)) return;
  traceRealtime("Socket: connection ended",
                {{"intentional", _intentionalClose}, {"wasOpen", _isOpen}});
  teardownConnectionLocked(!_intentionalClose);
  if (!_intentionalClose) scheduleReconnectLocked();
}

void PubSubSocket::teardownConnectionLocked(bool notifyUnexpected) {
  const bool wasOpen = std::exchange(_isOpen, false);
  const bool wasConnecting = std::exchange(_isConnecting, false);
  ++_generation;
  if (const auto task = std::exchange(_task, {})) task->cancel(WebSocketTask::goingAway);
  if (!wasOpen && !wasConnecting) return;
  traceRealtime(notifyUnexpected ? "Socket: notifying wire client — unexpected close"
                                 : "Socket: notifying wire client — intentional close");
  if (onClose) onClose(notifyUnexpected);
}

void PubSubSocket::scheduleReconnectLocked() {
  // An attempt that somebody asked for in between neither begins a series of its own nor puts off
  // the one that is due.
  if (_intentionalClose || std::exchange(_isReconnectPending, true)) return;
  const auto delay = reconnectDelay(_reconnectAttempt, randomFraction());
  ++_reconnectAttempt;
  traceRealtime("Socket: reconnect scheduled",
                {{"attempt", _reconnectAttempt}, {"delayMs", delay.count()}});
  _queue->after(delay, [weak = weak_from_this(), step = ++_reconnectStep] {
    const auto self = weak.lock();
    if (!self || self->_reconnectStep != step) return;
    self->_isReconnectPending = false;
    self->connectLocked();
  });
}

std::chrono::milliseconds PubSubSocket::reconnectDelay(int attempt, double random) {
  const double base = std::min(std::exp2(attempt), 30.0);
  const double seconds = std::max(base + base * 0.25 * (2 * random - 1), 1.0);
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

}  // namespace kestrova
