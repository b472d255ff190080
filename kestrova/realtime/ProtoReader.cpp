#include <kestrova/platform/Values.h>
#include <kestrova/realtime/ProtoReader.h>

namespace kestrova {
namespace {

using DecodeKind = ProtoDecodeError::Kind;

std::string describeDecodeError(DecodeKind kind, int wireType) {
  switch (kind) {
    case DecodeKind::unknownWireType:
      return "unknownWireType(" + std::to_string(wireType) + ")";
    case DecodeKind::truncated:
      return "truncated";
    case DecodeKind::malformedVarint:
      return "malformedVarint";
    case DecodeKind::invalidUTF8:
      break;
  }
  return "invalidUTF8";
}

}  // namespace

ProtoDecodeError::ProtoDecodeError(Kind kind, int wireType)
    : _kind(kind), _wireType(wireType), _text(describeDecodeError(kind, wireType)) {}

std::uint64_t ProtoReader::readLongVarint() {
  std::uint64_t value = 0;
  for (int shift = 0;; shift += 7) {
    if (_at == _end) throw ProtoDecodeError(DecodeKind::truncated);
    const std::uint64_t byte = *_at++;
    constexpr int lastShift = 63;  // of the tenth byte
    if (shift == lastShift && byte > 1) throw ProtoDecodeError(DecodeKind::malformedVarint);
    value |= (byte & 0x7F) << shift;
    if (byte < 0x80) return value;
  }
}

ByteView ProtoReader::take(std::uint64_t count) {
  if (count > static_cast<std::uint64_t>(_end - _at)) throw ProtoDecodeError(DecodeKind::truncated);
  const ByteView taken(_at, static_cast<std::size_t>(count));
  _at += taken.size();
  return taken;
}

ByteView ProtoReader::readBytes() {
  return take(readVarint());
}

std::string_view ProtoReader::readText() {
  const auto text = textOf(readBytes());
  if (!isUtf8(text)) throw ProtoDecodeError(DecodeKind::invalidUTF8);
  return text;
}

void ProtoReader::skip(WireType wireType) {
  switch (wireType) {
    case WireType::varint:
      readVarint();
      return;
    case WireType::fixed64:
      take(8);
      return;
    case WireType::lengthDelimited:
      readBytes();
      return;
    case WireType::fixed32:
      take(4);
      return;
  }
  throw ProtoDecodeError(DecodeKind::unknownWireType, static_cast<int>(wireType));
}

}  // namespace kestrova
