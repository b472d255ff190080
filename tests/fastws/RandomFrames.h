#pragma once

#include <kestrova/realtime/Bytes.h>

#include <google/protobuf/descriptor.h>

#include <cstdint>
#include <random>
#include <string>

namespace kestrova::test {

/// Bytes that are messages of a schema, or nearly: mostly fields that the message has, some of
/// another type, some that it hasn't, some written at needless length; half of them damaged.
class RandomFrames {
public:
  explicit RandomFrames(std::uint64_t seed) : _random(seed) {}

  Bytes frame(const google::protobuf::Descriptor& type);
  /// From 0 to `most`.
  std::uint64_t upTo(std::uint64_t most);
  bool oneIn(std::uint64_t count) { return upTo(count - 1) == 0; }
  /// Small ones, large ones, and those at the edges of their encoding.
  std::uint64_t number();
  /// Good UTF-8, often empty.
  std::string text();

private:
  void message(Bytes& out, const google::protobuf::Descriptor& type);
  void knownField(Bytes& out, const google::protobuf::FieldDescriptor& field);
  void value(Bytes& out, std::uint64_t wireType);
  void varint(Bytes& out, std::uint64_t value);
  void delimited(Bytes& out, ByteView bytes);
  std::string anyText();
  void damage(Bytes& bytes);

  std::mt19937_64 _random;
};

}  // namespace kestrova::test
