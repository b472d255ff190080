#pragma once

#include <kestrova/platform/SocketIO.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
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
/// other namespaces than "/" are skipped.
class SocketIODecoder {
public:
  enum class Outcome {
    packet,   ///< `out` is complete
    nothing,  ///< go on with the next message
    bad       ///< this is no Socket.IO; the decoder must not be used any more
  };

  /// \param maxBytes limit for the attachments of one packet together
  explicit SocketIODecoder(std::size_t maxBytes) : _maxBytes(maxBytes) {}

  Outcome text(std::string_view message, SocketIOPacket& out);
  Outcome bytes(std::span<const std::uint8_t> message, SocketIOPacket& out);

private:
  struct Header;
  static bool readHeader(std::string_view& message, Header& header);
  bool readArguments(const Header& header, Value&& json, SocketIOPacket& packet);
  Outcome complete(SocketIOPacket& out);

  std::size_t _maxBytes;
  SocketIOPacket _packet;
  bool _skip = false;
  /// Where in `_packet.items` the n-th attachment belongs.
  std::vector<std::optional<std::size_t>> _places;
  std::size_t _attachedBytes = 0;
  std::size_t _expected = 0;
};

}  // namespace kestrova
