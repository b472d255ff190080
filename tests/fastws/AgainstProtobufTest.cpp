// The hand-written codec of topic messages against what protoc makes of the service's schema, over
// frames that nobody would write by hand. The sequence is the same in every run.

#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/ProtoReader.h>

#include <google/protobuf/stubs/logging.h>
#include <gtest/gtest.h>

#include "Oddities.h"
#include "RandomFrames.h"
#include "fastws.pb.h"
#include <algorithm>
#include <concepts>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrova::test {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

std::string hex(ByteView bytes) {
  std::string text;
  for (const auto byte : bytes) {
    constexpr const char* digits = "0123456789ABCDEF";
    (text += digits[byte >> 4]) += digits[byte & 15];
  }
  return text;
}

// ---- Field by field ----------------------------------------------------------------------------

std::string valueOf(std::string_view ours) {
  return std::string(ours);
}
std::string valueOf(ByteView ours) {
  return std::string(textOf(ours));
}
std::string valueOf(std::integral auto ours) {
  return std::to_string(ours);
}
template <class List>
requires requires(const List& list) {
  list.front().size();
}
std::vector<std::string> valueOf(const List& ours) {
  std::vector<std::string> values;
  for (const auto& entry : ours) values.push_back(valueOf(entry));
  return values;
}

std::string numberOf(const Message& message, const FieldDescriptor& field) {
  const auto& reflection = *message.GetReflection();
  switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_BOOL:
      return std::to_string(reflection.GetBool(message, &field));
    case FieldDescriptor::CPPTYPE_INT32:
      return std::to_string(reflection.GetInt32(message, &field));
    case FieldDescriptor::CPPTYPE_UINT32:
      return std::to_string(reflection.GetUInt32(message, &field));
    case FieldDescriptor::CPPTYPE_UINT64:
      return std::to_string(reflection.GetUInt64(message, &field));
    default:
      return "a type that the schema hasn't";
  }
}

void theirValue(const Message& message, const FieldDescriptor& field, std::string& value) {
  value = field.cpp_type() == FieldDescriptor::CPPTYPE_STRING
              ? message.GetReflection()->GetString(message, &field)
              : numberOf(message, field);
}
void theirValue(const Message& message, const FieldDescriptor& field,
                std::vector<std::string>& values) {
  const auto& reflection = *message.GetReflection();
  for (int i = 0; i < reflection.FieldSize(message, &field); ++i)
    values.push_back(reflection.GetRepeatedString(message, &field, i));
}

template <class Ours>
void expectSame(const Ours& ours, const Message& theirs) {
  int count = 0;
  Ours::fields(ours, [&](int number, const auto& value) {
    ++count;
    const auto* field = theirs.GetDescriptor()->FindFieldByNumber(number);
    ASSERT_TRUE(field) << number;
    decltype(valueOf(value)) expected;
    theirValue(theirs, *field, expected);
    EXPECT_EQ(valueOf(value), expected) << field->full_name();
  });
  EXPECT_EQ(count, theirs.GetDescriptor()->field_count());
}

/// The kinds are numbered alike in both.
template <class Kind>
void expectSameKind(const Kind& ours, const Message& theirs) {
  const auto& choice = *theirs.GetDescriptor()->oneof_decl(0);
  const auto* field = theirs.GetReflection()->GetOneofFieldDescriptor(theirs, &choice);
  ASSERT_TRUE(field);
  ASSERT_EQ(static_cast<int>(ours.index()) + 1, field->number());
  const auto& inner = theirs.GetReflection()->GetMessage(theirs, field);
  std::visit([&](const auto& message) { expectSame(message, inner); }, ours);
}

void expectSame(const FastwsServerEnvelope& ours, const Message& theirs) {
  expectSameKind(ours.kind, theirs);
}

// ---- Decoding ----------------------------------------------------------------------------------

/// How the cases of a run came out; a run that doesn't see both and all oddities shows little.
struct Tally {
  int both = 0;
  int neither = 0;
  std::set<std::string> odd;
};

void note(const Oddities& odd, Tally& tally) {
  if (odd.fieldZero) tally.odd.insert("field zero");
  if (odd.wideKey) tally.odd.insert("wide key");
  if (odd.longLength) tally.odd.insert("long length");
  if (odd.group) tally.odd.insert("group");
  if (odd.tenthByte) tally.odd.insert("tenth byte");
  if (odd.noKind) tally.odd.insert("no kind");
  if (!odd.lastKind.empty()) tally.odd.insert("several kinds");
}

template <class Ours, class Theirs>
void compareDecoding(const Bytes& frame, Tally& tally) {
  std::optional<Ours> ours;
  try {
    ours.emplace(ByteView(frame));
  } catch (const ProtoDecodeError&) {
  }
  Theirs theirs;
  const bool accepted = theirs.ParseFromArray(frame.data(), static_cast<int>(frame.size()));
  const auto odd = odditiesOf(frame, *Theirs::descriptor());
  note(odd, tally);
  if (odd.theirsOnly()) {
    EXPECT_FALSE(ours) << hex(frame);
    return;
  }
  if (odd.oursOnly()) return;  // what is wrong in them shows in the frames without
  ASSERT_EQ(ours.has_value(), accepted) << hex(frame);
  ++(accepted ? tally.both : tally.neither);
  if (!accepted) return;
  if (!odd.lastKind.empty()) {
    theirs.Clear();
    const auto& last = odd.lastKind;
    ASSERT_TRUE(theirs.ParseFromArray(last.data(), static_cast<int>(last.size())));
  }
  expectSame(*ours, theirs);
  if (testing::Test::HasFailure()) ADD_FAILURE() << hex(frame);
}

template <class Ours, class Theirs>
Tally decodeMany(std::uint64_t seed, int cases) {
  google::protobuf::SetLogHandler(nullptr);  // it would print every text that isn't UTF-8
  RandomFrames random(seed);
  Tally tally;
  for (int i = 0; i < cases && !testing::Test::HasFailure(); ++i)
    compareDecoding<Ours, Theirs>(random.frame(*Theirs::descriptor()), tally);
  return tally;
}

TEST(AgainstProtobuf, envelopesAreReadAlike) {
  const auto tally = decodeMany<FastwsServerEnvelope, fastws::FastwsServerEnvelope>(1, 20'000);
  EXPECT_GT(tally.both, 5'000);
  EXPECT_GT(tally.neither, 3'000);
  EXPECT_EQ(tally.odd.size(), 7U) << "not every oddity came up";
}

TEST(AgainstProtobuf, theMessagesOfABatchAreReadAlike) {
  const auto tally = decodeMany<FastwsServerMessage, fastws::FastwsServerMessage>(2, 20'000);
  EXPECT_GT(tally.both, 5'000);
  EXPECT_GT(tally.neither, 3'000);
  // And those that stand alone elsewhere only in tests: their fields are in envelopes, too.
  decodeMany<FastwsServerBatch, fastws::FastwsServerBatch>(3, 5'000);
  decodeMany<FastwsAck, fastws::FastwsAck>(4, 5'000);
  decodeMany<FastwsWelcome, fastws::FastwsWelcome>(5, 2'000);
  decodeMany<FastwsPing, fastws::FastwsPing>(6, 2'000);
}

/// libprotobuf keeps all of a list; a frame of empty entries would take many times its own size.
TEST(AgainstProtobuf, aListEndsAtItsBound) {
  fastws::FastwsServerBatch theirs;
  for (std::size_t i = 0; i < FastwsServerBatch::mostEntries + 1; ++i) theirs.add_payloads();
  theirs.set_request_id("after");
  const auto frame = theirs.SerializeAsString();
  const FastwsServerBatch ours(bytesOf(frame));
  EXPECT_EQ(ours.payloads.size(), FastwsServerBatch::mostEntries);
  EXPECT_EQ(ours.requestId, "after");
}

// ---- Encoding ----------------------------------------------------------------------------------

/// Random values; what they refer to lives as long as this.
class RandomMessages {
public:
  explicit RandomMessages(std::uint64_t seed) : _random(seed) {}

  FastwsClientMessage next() {
    _texts.clear();
    switch (_random.upTo(4)) {
      case 0:
        return {filled<FastwsSubscribe>()};
      case 1:
        return {filled<FastwsUnsubscribe>()};
      case 2:
        return {filled<FastwsPublish>()};
      case 3:
        return {filled<FastwsGetHistory>()};
      default:
        return {filled<FastwsPong>()};
    }
  }

private:
  template <class M>
  M filled() {
    M message;
    M::fields(message, [&](int, auto& field) { fill(field); });
    return message;
  }
  template <std::integral T>
  void fill(T& field) {
    field = static_cast<T>(_random.number());
  }
  void fill(std::string_view& field) { field = text(); }
  void fill(ByteView& field) { field = bytesOf(text()); }
  void fill(std::span<const std::string>& field) {
    _list.clear();
    for (auto count = _random.upTo(3); count > 0; --count) _list.push_back(_random.text());
    field = _list;
  }
  const std::string& text() {
    _texts.push_back(std::make_unique<std::string>(_random.text()));
    return *_texts.back();
  }

  RandomFrames _random;
  std::vector<std::unique_ptr<std::string>> _texts;
  std::vector<std::string> _list;
};

TEST(AgainstProtobuf, whatIsWrittenIsReadAndWrittenAlike) {
  RandomMessages random(7);
  for (int i = 0; i < 10'000 && !HasFailure(); ++i) {
    const auto message = random.next();
    const auto ours = message.encoded();
    fastws::FastwsClientMessage theirs;
    ASSERT_TRUE(theirs.ParseFromArray(ours.data(), static_cast<int>(ours.size()))) << hex(ours);
    expectSameKind(message.kind, theirs);
    EXPECT_EQ(hex(bytesOf(theirs.SerializeAsString())), hex(ours));
    // Alone, without the number that names its kind.
    const auto alone = std::visit([](const auto& each) { return each.encoded(); }, message.kind);
    EXPECT_TRUE(std::equal(alone.rbegin(), alone.rend(), ours.rbegin())) << hex(ours);
  }
}

}  // namespace
}  // namespace kestrova::test
