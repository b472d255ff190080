#include <kestrova/platform/Values.h>
#include <kestrova/platform/linux/socketio/EngineIO.h>

namespace kestrova {
namespace {

// Longer intervals would only switch the watch for silence off, and could overflow a time point.
constexpr std::int64_t longestInterval = 24LL * 60 * 60 * 1000;

bool isInterval(std::int64_t milliseconds) {
  return milliseconds > 0 && milliseconds <= longestInterval;
}

}  // namespace

std::optional<EngineIOPacket> decodeEngineIO(std::string_view frame) {
  if (frame.empty() || frame.front() < '0' || frame.front() > '6') return std::nullopt;
  return EngineIOPacket{static_cast<EngineIOType>(frame.front()), frame.substr(1)};
}

std::optional<EngineIOHandshake> decodeHandshake(std::string_view payload) {
  const auto values = parseDictionary(payload);
  const auto interval = integer(values, "pingInterval", 0);
  const auto timeout = integer(values, "pingTimeout", 0);
  if (!text(values, "sid") || !isInterval(interval) || !isInterval(timeout)) return std::nullopt;

  EngineIOHandshake handshake;
  handshake.pingInterval = std::chrono::milliseconds(interval);
  handshake.pingTimeout = std::chrono::milliseconds(timeout);
  const auto limit = integer(values, "maxPayload", 0);
  if (limit > 0) handshake.maxPayload = static_cast<std::size_t>(limit);
  return handshake;
}

}  // namespace kestrova
