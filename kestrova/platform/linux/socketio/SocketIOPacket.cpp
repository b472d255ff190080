#include <kestrova/platform/linux/socketio/SocketIOPacket.h>

#include <boost/json/serializer.hpp>

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

/// Takes the digits off the front; nothing when there are none or their number is out of range.
std::optional<std::uint64_t> takeNumber(std::string_view& text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  if (error != std::errc()) return std::nullopt;
  return number;
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
  std::uint64_t attachments = 0;
  bool otherNamespace = false;
  std::optional<std::uint64_t> id;
};

const char* SocketIODecoder::readHeader(std::string_view& message, Header& header) {
  if (message.empty() || message.front() < '0' || message.front() > binaryAckDigit)
    return "it is of an unknown type";
  const char digit = message.front();
  message.remove_prefix(1);
  if (digit == binaryEventDigit || digit == binaryAckDigit) {
    header.type = digit == binaryEventDigit ? SocketIOType::event : SocketIOType::ack;
    const auto count = takeNumber(message);
    if (!count || message.empty() || message.front() != '-')
      return "the number of its attachments makes no sense";
    message.remove_prefix(1);
    header.attachments = *count;
  } else {
    header.type = static_cast<SocketIOType>(digit - '0');
  }
  if (!message.empty() && message.front() == '/') {
    const auto comma = message.find(',');
    const auto name = message.substr(0, comma);
    header.otherNamespace = name.substr(0, name.find('?')) != "/";
    message.remove_prefix(comma == std::string_view::npos ? message.size() : comma + 1);
  }
  if (!message.empty() && isDigit(message.front()) && !(header.id = takeNumber(message)))
    return "its acknowledgement's number makes no sense";
  return nullptr;
}

bool SocketIODecoder::text(std::string_view message, SocketIOPacket& out) {
  if (_expected != 0 && !_skip) skip("the next one came in the place of its attachments");
  Header header;
  const char* trouble = readHeader(message, header);
  _packet = SocketIOPacket();
  _packet.type = header.type;
  _packet.id = header.id;
  _expected = header.attachments;
  _attachedBytes = 0;
  _skip = header.otherNamespace;
  if (_skip) return false;

  if (!trouble) trouble = readBody(header, message);
  if (trouble) skip(trouble);
  if (trouble || _expected != 0) return false;
  out = std::move(_packet);
  return true;
}

const char* SocketIODecoder::readBody(const Header& header, std::string_view message) {
  if (header.attachments > maxAttachments) return "it has too many attachments";
  _places.assign(static_cast<std::size_t>(header.attachments), std::nullopt);
  auto json = message.empty() ? std::optional<Value>(nullptr) : parseJson(message);
  if (header.type == SocketIOType::event || header.type == SocketIOType::ack)
    return json ? readArguments(header, std::move(*json)) : "it is not JSON that can be read";
  // The others count without their data, too.
  if (json) _packet.data = std::move(*json);
  return nullptr;
}

const char* SocketIODecoder::readArguments(const Header& header, Value&& json) {
  auto* list = json.if_array();
  if (!list) return "it holds no list";
  auto first = list->begin();
  if (header.type == SocketIOType::ack) {
    if (!header.id) return "it answers nothing";
  } else {
    if (list->empty() || !first->is_string()) return "its event has no name";
    _packet.event = std::string(first->get_string());
    ++first;
  }
  _packet.items.reserve(static_cast<std::size_t>(list->end() - first));
  for (; first != list->end(); ++first) {
    if (const auto number = _places.empty() ? std::nullopt : placeholder(*first)) {
      if (*number < 0 || static_cast<std::size_t>(*number) >= _places.size())
        return "it has a place for an attachment that it has not";
      auto& place = _places[static_cast<std::size_t>(*number)];
      // One attachment many times over would multiply its size.
      if (place) return "it has several places for one attachment";
      place = _packet.items.size();
    }
    _packet.items.emplace_back(std::move(*first));
  }
  return nullptr;
}

bool SocketIODecoder::bytes(std::span<const std::uint8_t> message, SocketIOPacket& out) {
  if (_expected == 0) {
    _skipped("it is an attachment of no packet", std::nullopt);
    return false;
  }
  _attachedBytes += message.size();
  if (!_skip && _attachedBytes > _maxBytes) skip("its attachments are too long");
  if (!_skip) {
    if (const auto place = _places[_places.size() - static_cast<std::size_t>(_expected)])
      _packet.items[*place] = SocketBytes(message.begin(), message.end());
  }
  --_expected;
  if (_expected != 0 || _skip) return false;
  out = std::move(_packet);
  return true;
}

void SocketIODecoder::skip(const char* why) {
  const auto packet = std::exchange(_packet, {});
  _skip = true;
  _skipped(why, packet.type == SocketIOType::ack ? packet.id : std::nullopt);
}

}  // namespace kestrova
