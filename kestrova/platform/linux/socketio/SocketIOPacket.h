#pragma once

#include <kestrova/platform/SocketIO.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrova {

/// The packets of Socket.IO protocol 5. The two binary kinds differ on the wire only: decoded they
/// are an `event` and an `ack` whose items hold bytes.
enum class SocketIOType { connect, disconnect, event, ack, connectError };

struct SocketIOPacket {
  SocketIOType type = SocketIOType::event;
  /// The name of an `event`.
  std::string event;
  /// The arguments of an `event` or an `ack`.
  SocketItems items;
  /// Which acknowledgement an `event` asks for or an `ack` is.
  std::optional<std::uint64_t> id;
  /// What comes with `connect` and `connectError`.
  Value data;
};

/// A packet as WebSocket messages: one text, then its attachments in order.
struct EncodedPacket {
  std::string text;
  std::vector<SocketBytes> attachments;
};

/// Nothing when an item cannot travel as JSON. Bytes become attachments without being copied.
std::optional<EncodedPacket> encodeEvent(std::string_view event, SocketItems items,
                                         std::optional<std::uint64_t> id);
std::optional<EncodedPacket> encodeAck(std::uint64_t id, SocketItems items);
EncodedPacket encodeConnect();
EncodedPacket encodeDisconnect();

/// Puts packets together from the messages of one connection, in the order in which they came.
///
/// Attachments become items where their placeholder is an argument by itself. One that is nested
/// deeper in an argument has no counterpart among items: its placeholder stays as it is. Packets of
/// other namespaces than "/" go by. A packet that cannot be read is left out, its attachments too,
/// and the next one is read again.
class SocketIODecoder {
public:
  /// Hears why a packet is left out, and which acknowledgement it was if that much could be read.
  using Skipped = std::function<void(const char* why, std::optional<std::uint64_t> ack)>;

  /// \param maxBytes limit for the attachments of one packet together
  SocketIODecoder(std::size_t maxBytes, Skipped skipped)
      : _maxBytes(maxBytes), _skipped(std::move(skipped)) {}

  /// True when `out` is complete; otherwise a later message may complete it.
  bool text(std::string_view message, SocketIOPacket& out);
  bool bytes(std::span<const std::uint8_t> message, SocketIOPacket& out);

private:
  struct Header;
  // These give what is wrong, or null.
  static const char* readHeader(std::string_view& message, Header& header);
  const char* readBody(const Header& header, std::string_view message);
  const char* readArguments(const Header& header, Value&& json);
  void skip(const char* why);

  const std::size_t _maxBytes;
  const Skipped _skipped;
  SocketIOPacket _packet;
  /// The attachments that are still expected are dropped.
  bool _skip = false;
  /// Where in `_packet.items` the n-th attachment belongs.
  std::vector<std::optional<std::size_t>> _places;
  std::size_t _attachedBytes = 0;
  std::uint64_t _expected = 0;
};

}  // namespace kestrova
