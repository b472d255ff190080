#include <kestrova/platform/Values.h>
#include <kestrova/platform/linux/socketio/EngineIO.h>

#include <algorithm>

namespace kestrova {
namespace {

constexpr std::int64_t usualInterval = 25'000;
constexpr std::int64_t usualTimeout = 20'000;

}  // namespace

std::optional<EngineIOPacket> decodeEngineIO(std::string_view frame) {
  if (frame.empty() || frame.front() < '0' || frame.front() > '6') return std::nullopt;
  return EngineIOPacket{static_cast<EngineIOType>(frame.front()), frame.substr(1)};
}

std::optional<EngineIOHandshake> decodeHandshake(std::string_view payload, PingBounds bounds) {
  const auto values = parseDictionary(payload);
  if (!text(values, "sid")) return std::nullopt;
  auto time = [&](const char* key, std::int64_t usual) {
    const auto given = std::chrono::milliseconds(integer(values, key, usual));
    return std::clamp(given, bounds.shortest, bounds.longest);
  };

  EngineIOHandshake handshake;
  handshake.pingInterval = time("pingInterval", usualInterval);
  handshake.pingTimeout = time("pingTimeout", usualTimeout);
  const auto limit = integer(values, "maxPayload", 0);
  if (limit > 0) handshake.maxPayload = static_cast<std::size_t>(limit);
  return handshake;
}

}  // namespace kestrova
