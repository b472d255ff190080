#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/ProtoReader.h>
#include <kestrova/realtime/ProtoWriter.h>

#include <concepts>
#include <type_traits>
#include <utility>

namespace kestrova {
namespace {

template <class T>
concept Varint = std::integral<T>;
template <class T>
concept Delimited = std::same_as<T, std::string_view> || std::same_as<T, ByteView>;

// ---- Encoding ----------------------------------------------------------------------------------

ByteView rawBytes(ByteView bytes) {
  return bytes;
}
ByteView rawBytes(std::string_view text) {
  return bytesOf(text);
}

/// Negative numbers are extended to 64 bits first.
template <Varint T>
std::uint64_t wireValue(T value) {
  if constexpr (std::is_signed_v<T>)
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
  else
    return value;
}

constexpr std::size_t delimitedSize(int number, std::size_t length) {
  return varintSize(static_cast<std::uint64_t>(number) << 3) + varintSize(length) + length;
}

// A field with its default isn't written.
template <Varint T>
std::size_t sizeOf(int number, T value) {
  return value ? varintSize(static_cast<std::uint64_t>(number) << 3) + varintSize(wireValue(value))
               : 0;
}
template <Delimited T>
std::size_t sizeOf(int number, const T& value) {
  return value.empty() ? 0 : delimitedSize(number, value.size());
}
std::size_t sizeOf(int number, std::span<const std::string> list) {
  std::size_t size = 0;
  for (const auto& entry : list) size += delimitedSize(number, entry.size());
  return size;
}

template <Varint T>
void write(ProtoWriter& writer, int number, T value) {
  if (!value) return;
  writer.writeVarint(static_cast<std::uint64_t>(number) << 3);
  writer.writeVarint(wireValue(value));
}
template <Delimited T>
void write(ProtoWriter& writer, int number, const T& value) {
  if (!value.empty()) writer.writeBytes(static_cast<std::uint64_t>(number), rawBytes(value));
}
void write(ProtoWriter& writer, int number, std::span<const std::string> list) {
  for (const auto& entry : list)
    writer.writeBytes(static_cast<std::uint64_t>(number), bytesOf(entry));
}

template <class Message>
std::size_t encodedSize(const Message& message) {
  std::size_t size = 0;
  Message::fields(message, [&](int number, const auto& field) { size += sizeOf(number, field); });
  return size;
}

template <class Message>
void writeFields(ProtoWriter& writer, const Message& message) {
  Message::fields(message, [&](int number, const auto& field) { write(writer, number, field); });
}

template <class Message>
Bytes encode(const Message& message) {
  ProtoWriter writer(encodedSize(message));
  writeFields(writer, message);
  return writer.take();
}

// ---- Decoding ----------------------------------------------------------------------------------

template <class T>
constexpr WireType wireTypeOf() {
  return Varint<T> ? WireType::varint : WireType::lengthDelimited;
}

template <Varint T>
void read(ProtoReader& reader, T& field) {
  field = static_cast<T>(reader.readVarint());
}
void read(ProtoReader& reader, std::string_view& field) {
  field = reader.readText();
}
void read(ProtoReader& reader, ByteView& field) {
  field = reader.readBytes();
}
template <Delimited T>
void read(ProtoReader& reader, std::vector<T>& field) {
  T entry;
  read(reader, entry);
  if (field.size() < FastwsServerBatch::mostEntries) field.push_back(entry);
}

template <class Message>
void decode(ByteView bytes, Message& message) {
  ProtoReader reader(bytes);
  while (!reader.atEnd()) {
    const auto key = reader.readKey();
    bool taken = false;
    Message::fields(message, [&](std::uint64_t number, auto& field) {
      if (taken || key.field != number) return;
      if (key.wireType != wireTypeOf<std::remove_reference_t<decltype(field)>>()) return;
      read(reader, field);
      taken = true;
    });
    if (!taken) reader.skip(key.wireType);
  }
}

/// Makes the case of `kind` whose number is `number`; false when there is none.
template <std::size_t place = 0>
bool decodeCase(std::uint64_t number, ProtoReader& reader, FastwsServerEnvelope::Kind& kind) {
  if constexpr (place < std::variant_size_v<FastwsServerEnvelope::Kind>) {
    if (number != place + 1) return decodeCase<place + 1>(number, reader, kind);
    kind.emplace<place>(reader.readBytes());
    return true;
  }
  return false;
}

}  // namespace

Bytes FastwsSubscribe::encoded() const {
  return encode(*this);
}
Bytes FastwsUnsubscribe::encoded() const {
  return encode(*this);
}
Bytes FastwsPublish::encoded() const {
  return encode(*this);
}
Bytes FastwsGetHistory::encoded() const {
  return encode(*this);
}
Bytes FastwsPong::encoded() const {
  return encode(*this);
}

Bytes FastwsClientMessage::encoded() const {
  const auto number = static_cast<int>(kind.index()) + 1;
  return std::visit(
      [&](const auto& message) {
        const auto size = encodedSize(message);
        ProtoWriter writer(delimitedSize(number, size));
        writer.writeLength(static_cast<std::uint64_t>(number), size);
        writeFields(writer, message);
        return writer.take();
      },
      kind);
}

FastwsServerMessage::FastwsServerMessage(ByteView decoding) {
  decode(decoding, *this);
}
FastwsServerBatch::FastwsServerBatch(ByteView decoding) {
  decode(decoding, *this);
}
FastwsAck::FastwsAck(ByteView decoding) {
  decode(decoding, *this);
}
FastwsWelcome::FastwsWelcome(ByteView decoding) {
  decode(decoding, *this);
}
FastwsPing::FastwsPing(ByteView decoding) {
  decode(decoding, *this);
}

std::vector<FastwsServerMessage> FastwsServerBatch::decodedMessages() const {
  std::vector<FastwsServerMessage> messages;
  messages.reserve(payloads.size());
  for (const auto& payload : payloads) {
    try {
      messages.emplace_back(payload);
    } catch (const ProtoDecodeError&) {  // the others count all the same
    }
  }
  return messages;
}

FastwsServerEnvelope::FastwsServerEnvelope(ByteView decoding) {
  bool seen = false;
  ProtoReader reader(decoding);
  while (!reader.atEnd()) {
    const auto key = reader.readKey();
    if (key.wireType == WireType::lengthDelimited && decodeCase(key.field, reader, kind))
      seen = true;
    else
      reader.skip(key.wireType);
  }
  if (!seen) throw ProtoDecodeError(ProtoDecodeError::Kind::truncated);
}

}  // namespace kestrova
