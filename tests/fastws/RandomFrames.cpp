#include "RandomFrames.h"

#include <array>
#include <iterator>

namespace kestrova::test {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

namespace {

constexpr std::uint64_t varintType = 0;
constexpr std::uint64_t delimitedType = 2;

}  // namespace

std::uint64_t RandomFrames::upTo(std::uint64_t most) {
  return std::uniform_int_distribution<std::uint64_t>(0, most)(_random);
}

std::uint64_t RandomFrames::number() {
  constexpr std::array<std::uint64_t, 8> edges{
      0, 1, 127, 128, 0xFFFFFFFF, 0x100000000, 0x7FFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF};
  if (oneIn(3)) return edges[upTo(edges.size() - 1)];
  return _random() >> upTo(63);
}

std::string RandomFrames::text() {
  static const std::array<std::string, 7> pieces{
      "a", "lorem ipsum", "\xC2\x80", "λ", "\xED\x9F\xBF", "\xEF\xBF\xBF", "\xF4\x8F\xBF\xBF"};
  std::string made;
  for (auto count = upTo(3); count > 0; --count) made += pieces[upTo(pieces.size() - 1)];
  return made;
}

/// Now and then what is almost UTF-8: cut off, too long a form, a surrogate, beyond the last one.
std::string RandomFrames::anyText() {
  static const std::array<std::string, 9> wrong{
      "\xCE",         "\x80",         "\xC0\x80",         "\xC1\xBF",
      "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
      "\xFF"};
  auto made = text();
  if (oneIn(40)) made.insert(upTo(made.size()), wrong[upTo(wrong.size() - 1)]);
  return made;
}

void RandomFrames::varint(Bytes& out, std::uint64_t value) {
  std::uint64_t least = 0;
  if (oneIn(60)) least = upTo(11);  // of needless length, up to one byte more than there may be
  for (; value >= 0x80 || least > 1; value >>= 7, least -= least > 0)
    out.push_back(static_cast<std::uint8_t>(value) | 0x80);
  out.push_back(static_cast<std::uint8_t>(value));
}

void RandomFrames::delimited(Bytes& out, ByteView bytes) {
  varint(out, bytes.size());
  out.insert(out.end(), bytes.begin(), bytes.end());
}

void RandomFrames::value(Bytes& out, std::uint64_t wireType) {
  if (wireType == varintType) return varint(out, number());
  if (wireType == delimitedType) return delimited(out, bytesOf(anyText()));
  constexpr std::array<std::size_t, 8> sizes{0, 8, 0, 0, 0, 4, 0, 0};
  for (auto count = sizes[wireType]; count > 0; --count)
    out.push_back(static_cast<std::uint8_t>(_random()));
}

void RandomFrames::knownField(Bytes& out, const FieldDescriptor& field) {
  const auto key = static_cast<std::uint64_t>(field.number()) << 3;
  const auto* nested = field.message_type();
  if (!nested) {
    const bool isNumber = field.cpp_type() != FieldDescriptor::CPPTYPE_STRING;
    const auto wireType = isNumber ? varintType : delimitedType;
    varint(out, key | wireType);
    return value(out, wireType);
  }
  Bytes inner;
  message(inner, *nested);
  varint(out, key | delimitedType);
  delimited(out, inner);
}

void RandomFrames::message(Bytes& out, const Descriptor& type) {
  const bool isChoice = type.oneof_decl_count() > 0;
  for (auto count = isChoice ? upTo(2) : upTo(6); count > 0; --count) {
    const auto known = static_cast<int>(upTo(static_cast<std::uint64_t>(type.field_count() - 1)));
    if (!oneIn(10)) {
      knownField(out, *type.field(known));
      continue;
    }
    // Of any wire type, under a number that it has or one that it hasn't.
    constexpr std::array<std::uint64_t, 6> strange{0, 11, 19, 99, 0x1FFFFFFF, 0x20000001};
    const auto field = oneIn(2) ? static_cast<std::uint64_t>(type.field(known)->number())
                                : strange[upTo(strange.size() - 1)];
    constexpr std::array<std::uint64_t, 4> skippable{0, 1, 2, 5};
    const auto wireType = oneIn(8) ? upTo(7) : skippable[upTo(3)];
    varint(out, field << 3 | wireType);
    value(out, wireType);
    if (wireType == 3 && oneIn(2)) varint(out, field << 3 | 4);  // the group's end
  }
}

void RandomFrames::damage(Bytes& bytes) {
  if (bytes.empty()) return;
  const auto place = upTo(bytes.size() - 1);
  const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(place);
  switch (upTo(4)) {
    case 0:
      *at = static_cast<std::uint8_t>(*at ^ (1U << upTo(7)));
      break;
    case 1:
      *at = static_cast<std::uint8_t>(_random());
      break;
    case 2:
      bytes.erase(at, bytes.end());
      break;
    case 3:
      bytes.erase(at);
      break;
    case 4:
      bytes.insert(at, static_cast<std::uint8_t>(_random()));
      break;
  }
}

Bytes RandomFrames::frame(const Descriptor& type) {
  Bytes made;
  message(made, type);
  if (oneIn(2)) return made;
  for (auto times = upTo(2); times > 0; --times) damage(made);
  return made;
}

}  // namespace kestrova::test
