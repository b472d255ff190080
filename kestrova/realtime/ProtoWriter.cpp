#include <kestrova/realtime/ProtoWriter.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kestrova {

void ProtoWriter::writeLength(std::uint64_t field, std::size_t length) {
  if (field >> 60 != 0) {
    std::fputs("Kestrova: a protobuf field number is out of range\n", stderr);
    std::abort();
  }
  constexpr std::uint64_t lengthDelimited = 2;
  writeVarint(field << 3 | lengthDelimited);
  writeVarint(length);
}

void ProtoWriter::writeBytes(std::uint64_t field, ByteView data) {
  writeLength(field, data.size());
  if (data.empty()) return;
  std::memcpy(room(data.size()), data.data(), data.size());
  _used += data.size();
}

void ProtoWriter::grow(std::size_t count) {
  _bytes.resize(std::max(_used + count, _bytes.size() * 2));
}

Bytes ProtoWriter::take() {
  _bytes.resize(std::exchange(_used, 0));
  return std::exchange(_bytes, {});
}

}  // namespace kestrova
