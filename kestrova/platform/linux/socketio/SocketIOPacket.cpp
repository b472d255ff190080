#include <kestrova/platform/linux/socketio/SocketIOPacket.h>

#include <charconv>
#include <utility>

namespace kestrova {
namespace {

// Wire digits: 0 connect, 1 disconnect, 2 event, 3 ack, 4 connect error, 5 and 6 the binary forms
// of 2 and 3. Every packet travels in an Engine.IO message, which is the leading '4'.
constexpr char engineMessage = '4';
constexpr char binaryEventDigit = '5';
constexpr char binaryAckDigit = '6';

// Far above what an application sends; keeps a made-up count from reserving memory.
constexpr std::size_t maxAttachments = 256;

void appendJson(std::string& out, const Value& value) {
  boost::json::serializer serializer;
  serializer.reset(&value);
  char chunk[4096];
  while (!serializer.done()) {
    const auto piece = serializer.read(chunk);
    out.append(piece.data(), piece.size());
  }
}

bool appendItems(EncodedPacket& packet, SocketItems& items, bool comma) {
  for (auto& item : items) {
    if (std::exchange(comma, true)) packet.text += ',';
    if (auto* bytes = std::get_if<SocketBytes>(&item)) {
      packet.text += R"({"_placeholder":true,"num":)";
      packet.text += std::to_string(packet.attachments.size());
      packet.text += '}';
      packet.attachments.push_back(std::move(*bytes));
      continue;
    }
    const auto& value = std::get<Value>(item);
    if (!isJsonEncodable(value)) return false;
    appendJson(packet.text, value);
  }
  return true;
}

void appendHead(std::string& text, const SocketItems& items, char plain, char binary,
                std::optional<std::uint64_t> id) {
  std::size_t attachments = 0;
  for (const auto& item : items) attachments += std::holds_alternative<SocketBytes>(item);
  text += engineMessage;
  text += attachments == 0 ? plain : binary;
  if (attachments != 0) text += std::to_string(attachments) + '-';
  if (id) text += std::to_string(*id);
  text += '[';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Takes a number off the front; false when it is out of range.
bool takeNumber(std::string_view& text, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

/// The number of the attachment that `value` stands for.
std::optional<std::int64_t> placeholder(const Value& value) {
  const auto* object = value.if_object();
  if (!object || !boolean(*object, "_placeholder", false)) return std::nullopt;
  return integer(*object, "num", -1);
}

}  // namespace

std::optional<EncodedPacket> encodeEvent(std::string_view event, SocketItems items,
                                         std::optional<std::uint64_t> id) {
  if (!isUtf8(event)) return std::nullopt;
  EncodedPacket packet;
  appendHead(packet.text, items, '2', binaryEventDigit, id);
  appendJson(packet.text, Value(event));
  if (!appendItems(packet, items, true)) return std::nullopt;
  packet.text += ']';
  return packet;
}

std::optional<EncodedPacket> encodeAck(std::uint64_t id, SocketItems items) {
  EncodedPacket packet;
  appendHead(packet.text, items, '3', binaryAckDigit, id);
  if (!appendItems(packet, items, false)) return std::nullopt;
  packet.text += ']';
  return packet;
}

EncodedPacket encodeConnect() {
  return {"40", {}};
}
EncodedPacket encodeDisconnect() {
  return {"41", {}};
}

struct SocketIODecoder::Header {
  SocketIOType type = SocketIOType::event;
  std::size_t attachments = 0;
  bool otherNamespace = false;
  std::optional<std::uint64_t> id;
};

bool SocketIODecoder::readHeader(std::string_view& message, Header& header) {
  if (message.empty() || message.front() < '0' || message.front() > binaryAckDigit) return false;
  const char digit = message.front();
  message.remove_prefix(1);
  if (digit == binaryEventDigit || digit == binaryAckDigit) {
    header.type = digit == binaryEventDigit ? SocketIOType::event : SocketIOType::ack;
    std::uint64_t count = 0;
    if (!takeNumber(message, count) || count > maxAttachments) return false;
    if (message.empty() || message.front() != '-') return false;
    message.remove_prefix(1);
    header.attachments = static_cast<std::size_t>(count);
  } else {
    header.type = static_cast<SocketIOType>(digit - '0');
  }
  if (!message.empty() && message.front() == '/') {
    const auto comma = message.find(',');
    const auto name = message.substr(0, comma);
    header.otherNamespace = name.substr(0, name.find('?')) != "/";
    message.remove_prefix(comma == std::string_view::npos ? message.size() : comma + 1);
  }
  if (!message.empty() && isDigit(message.front())) {
    std::uint64_t id = 0;
    if (!takeNumber(message, id)) return false;
    header.id = id;
  }
  return true;
}

SocketIODecoder::Outcome SocketIODecoder::text(std::string_view message, SocketIOPacket& out) {
  if (_expected != 0) return Outcome::bad;  // attachments were announced
  Header header;
  if (!readHeader(message, header)) return Outcome::bad;

  _packet = SocketIOPacket();
  _packet.type = header.type;
  _packet.id = header.id;
  _skip = header.otherNamespace;
  _expected = header.attachments;
  _places.assign(_expected, std::nullopt);
  _attachedBytes = 0;
  if (_skip) return Outcome::nothing;

  std::optional<Value> json;
  if (!message.empty() && !(json = parseJson(message))) return Outcome::bad;
  if (header.type == SocketIOType::event || header.type == SocketIOType::ack) {
    if (!json || !readArguments(header, std::move(*json), _packet)) return Outcome::bad;
  } else if (json) {
    _packet.data = std::move(*json);
  }
  return _expected == 0 ? complete(out) : Outcome::nothing;
}

bool SocketIODecoder::readArguments(const Header& header, Value&& json, SocketIOPacket& packet) {
  auto* list = json.if_array();
  if (!list) return false;
  auto first = list->begin();
  if (header.type == SocketIOType::ack) {
    if (!header.id) return false;
  } else {
    if (list->empty() || !first->is_string()) return false;
    packet.event = std::string(first->get_string());
    ++first;
  }
  packet.items.reserve(static_cast<std::size_t>(list->end() - first));
  for (; first != list->end(); ++first) {
    if (const auto number = header.attachments == 0 ? std::nullopt : placeholder(*first)) {
      if (*number < 0 || static_cast<std::size_t>(*number) >= header.attachments) return false;
      auto& place = _places[static_cast<std::size_t>(*number)];
      if (place) return false;  // one attachment many times over would multiply its size
      place = packet.items.size();
    }
    packet.items.emplace_back(std::move(*first));
  }
  return true;
}

SocketIODecoder::Outcome SocketIODecoder::bytes(std::span<const std::uint8_t> message,
                                                SocketIOPacket& out) {
  if (_expected == 0) return Outcome::bad;
  _attachedBytes += message.size();
  if (_attachedBytes > _maxBytes) return Outcome::bad;
  if (!_skip) {
    if (const auto place = _places[_places.size() - _expected])
      _packet.items[*place] = SocketBytes(message.begin(), message.end());
  }
  --_expected;
  if (_expected != 0 || _skip) return Outcome::nothing;
  return complete(out);
}

SocketIODecoder::Outcome SocketIODecoder::complete(SocketIOPacket& out) {
  out = std::move(_packet);
  return Outcome::packet;
}

}  // namespace kestrova
