#include "Oddities.h"

#include <algorithm>
#include <optional>

namespace kestrova::test {

using google::protobuf::Descriptor;

namespace {

constexpr std::size_t mostShortBytes = 5;

/// Walks through a frame as far as it can be walked through.
class Walk {
public:
  Walk(ByteView frame, Oddities& found) : _left(frame), _found(found) {}

  void through(const Descriptor& type) {
    int kinds = 0;
    while (!_left.empty()) {
      const auto from = _left;
      const auto before = _left.size();
      const auto key = varint();
      if (!key) return;
      if (*key >> 32 || before - _left.size() > mostShortBytes) _found.wideKey = true;
      const auto number = *key >> 3;
      if (number == 0) _found.fieldZero = true;
      const auto body = value(*key & 7);
      if (!body) return;
      const auto* field =
          number <= 0x1FFFFFFF ? type.FindFieldByNumber(static_cast<int>(number)) : nullptr;
      if (!field || !field->message_type() || (*key & 7) != 2) continue;
      Walk(*body, _found).through(*field->message_type());
      const auto all = from.first(from.size() - _left.size());
      if (++kinds > 1) _found.lastKind.assign(all.begin(), all.end());
    }
    if (kinds == 0 && type.oneof_decl_count() > 0) _found.noKind = true;
  }

private:
  std::optional<std::uint64_t> varint() {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < 10 && i < _left.size(); ++i) {
      const std::uint64_t byte = _left[i];
      if (i == 9 && byte > 1) _found.tenthByte = true;
      value |= (byte & 0x7F) << (7 * i);
      if (byte >= 0x80) continue;
      _left = _left.subspan(i + 1);
      return value;
    }
    return std::nullopt;
  }

  std::optional<ByteView> value(std::uint64_t wireType) {
    std::optional<std::uint64_t> size;
    const auto before = _left.size();
    if (wireType == 0) size = varint() ? std::optional<std::uint64_t>(0) : std::nullopt;
    if (wireType == 1) size = 8;
    if (wireType == 5) size = 4;
    if (wireType == 3) _found.group = true;
    if (wireType == 2) {
      size = varint();
      if (size && before - _left.size() > mostShortBytes) _found.longLength = true;
    }
    if (!size || *size > _left.size()) return std::nullopt;
    const auto body = _left.first(*size);
    _left = _left.subspan(*size);
    return body;
  }

  ByteView _left;
  Oddities& _found;
};

}  // namespace

Oddities odditiesOf(ByteView frame, const Descriptor& type) {
  Oddities found;
  Walk(frame, found).through(type);
  return found;
}

}  // namespace kestrova::test
