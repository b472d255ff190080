#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>

namespace kestrova {

/// The packets of Engine.IO protocol 4, by their first character. A binary WebSocket message has no
/// such character and is always a `message`.
enum class EngineIOType : char {
  open = '0',
  close = '1',
  ping = '2',
  pong = '3',
  message = '4',
  upgrade = '5',
  noop = '6'
};

/// One text frame taken apart; `payload` points into the frame.
struct EngineIOPacket {
  EngineIOType type = EngineIOType::noop;
  std::string_view payload;
};

/// Nothing when the frame is empty or of an unknown type.
std::optional<EngineIOPacket> decodeEngineIO(std::string_view frame);

/// What the server says of itself in its `open` packet.
struct EngineIOHandshake {
  std::chrono::milliseconds pingInterval{0};
  std::chrono::milliseconds pingTimeout{0};
  /// The longest message that the server accepts, in bytes; 0 when it names no limit.
  std::size_t maxPayload = 0;
};

/// Within which a server's ping interval and time-out are believed; the nearer bound stands for
/// what is outside.
struct PingBounds {
  /// Less would take a moment's delay for a loss.
  std::chrono::milliseconds shortest{1'000};
  /// More would leave a loss unnoticed.
  std::chrono::milliseconds longest{5 * 60'000};
};

/// Nothing when it has no session. A time that is missing or no number gets the protocol's usual.
std::optional<EngineIOHandshake> decodeHandshake(std::string_view payload, PingBounds bounds = {});

}  // namespace kestrova
