#pragma once

#include <kestrova/realtime/Bytes.h>

#include <functional>
#include <optional>

namespace kestrova {

enum class PubSubTransportError { notConnected };

/// What carries the frames of topic messages: `PubSubSocket`, or a test's own. All callbacks come
/// on one serial queue, that of its owner.
class PubSubTransport {
public:
  using SendHandler = std::function<void(std::optional<PubSubTransportError>)>;

  virtual ~PubSubTransport() = default;

  std::function<void()> onOpen;
  /// The frame is good for the time of the call.
  std::function<void(ByteView frame)> onFrame;
  /// Once for each connection that was up or being made.
  std::function<void(bool unexpected)> onClose;

  /// Starts connecting, unless it is connected or connecting, or was closed for good.
  virtual void connect() = 0;
  /// Sends one binary frame. `completion` may be empty.
  virtual void send(Bytes frame, SendHandler completion) = 0;
  /// Takes the connection down; for good when it is intentional.
  virtual void close(bool intentional) = 0;
  /// Takes the present connection down as if it had been lost, so that a new one is made.
  virtual void reconnect() = 0;
};

}  // namespace kestrova
