#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/ProtoReader.h>
#include <kestrova/realtime/ProtoWriter.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>

namespace kestrova {
namespace {

using Kind = ProtoDecodeError::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

std::string hex(ByteView bytes) {
  constexpr const char* digits = "0123456789ABCDEF";
  std::string text;
  for (const auto byte : bytes) {
    if (!text.empty()) text += ' ';
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::optional<Kind> failureOf(const std::function<void()>& decode) {
  try {
    decode();
  } catch (const ProtoDecodeError& error) {
    return error.kind();
  }
  return std::nullopt;
}

TEST(FastwsMessagesTest, aFrameIsEncodedToTheByte) {
  const FastwsSubscribe subscribe{.topic = "t",
                                  .peerId = "p",
                                  .oldMessageLimit = -1,
                                  .realtimeOverflow = "queue",
                                  .requestId = "r"};
  EXPECT_EQ(hex(FastwsClientMessage{subscribe}.encoded()),
            "0A 1B 0A 01 74 12 01 70 18 FF FF FF FF FF FF FF FF FF 01 22 05 71 75 65 75 65 32 01 "
            "72");
  EXPECT_EQ(hex(FastwsClientMessage{FastwsPong{}}.encoded()), "2A 00");
  EXPECT_EQ(hex(FastwsClientMessage{FastwsPong{300}}.encoded()), "2A 03 08 AC 02");
  EXPECT_EQ(hex(FastwsClientMessage{FastwsUnsubscribe{"a", "b"}}.encoded()),
            "12 06 0A 01 61 12 01 62");
  EXPECT_EQ(hex(FastwsClientMessage{FastwsGetHistory{"a", "", 7, "b"}}.encoded()),
            "22 08 0A 01 61 18 07 22 01 62");

  const std::vector<std::string> two{"x", ""};
  const FastwsPublish publish{.topic = "a", .sendOnly = two, .persist = true, .requestId = "b"};
  EXPECT_EQ(hex(publish.encoded()), "0A 01 61 22 01 78 22 00 40 01 52 01 62");
  EXPECT_EQ(hex(FastwsPublish{.message = "m"}.encoded()), "1A 01 6D");

  const std::string longText(200, 'x');
  const auto encoded = FastwsPublish{.message = longText}.encoded();
  EXPECT_EQ(encoded.size(), 203U);
  EXPECT_EQ(hex({encoded.data(), 3}), "1A C8 01");
}

TEST(FastwsMessagesTest, aWriterRefusesAFieldThatNoKeyCanHold) {
  EXPECT_DEATH(ProtoWriter().writeBytes(std::uint64_t(1) << 60, {}), "out of range");
}

TEST(FastwsMessagesTest, everyFieldOfAServerMessageArrives) {
  const Bytes bytes{0x0A, 1,    'm', 0x12, 2,    0xFF, 0,   0x1A, 1, 't', 0x22, 1, 's',  0x2A, 1,
                    'n',  0x32, 1,   'p',  0x3A, 1,    'i', 0x42, 1, 'x', 0x42, 0, 0x48, 0x80, 1};
  const FastwsServerMessage message(bytes);
  EXPECT_EQ(message.message, "m");
  EXPECT_THAT(message.payload, ElementsAre(0xFF, 0));
  EXPECT_EQ(message.timestamp, "t");
  EXPECT_EQ(message.senderId, "s");
  EXPECT_EQ(message.senderName, "n");
  EXPECT_EQ(message.persistMsgId, "p");
  EXPECT_EQ(message.messageId, "i");
  EXPECT_THAT(message.sendOnly, ElementsAre("x", ""));
  EXPECT_EQ(message.seqNum, 128U);
}

TEST(FastwsMessagesTest, anEnvelopeHoldsTheLastOfItsKinds) {
  const auto kindOf = [](const Bytes& bytes) { return FastwsServerEnvelope(bytes).kind.index(); };
  EXPECT_EQ(kindOf({0x0A, 0}), 0U);
  EXPECT_EQ(kindOf({0x12, 0}), 1U);
  EXPECT_EQ(kindOf({0x1A, 0}), 2U);
  EXPECT_EQ(kindOf({0x22, 0, 0x12, 0}), 1U);
  EXPECT_EQ(kindOf({0x08, 5, 0x22, 0}), 3U);  // a known number of another type is no kind
  EXPECT_EQ(failureOf([&] { kindOf({}); }), Kind::truncated);
  EXPECT_EQ(failureOf([&] { kindOf({0x9A, 6, 0}); }), Kind::truncated);        // field 99 alone
  EXPECT_EQ(failureOf([&] { kindOf({0x12, 2, 0x0A, 5}); }), Kind::truncated);  // of what is inside
}

TEST(FastwsMessagesTest, aDecoderTellsWhatIsWrong) {
  const auto failure = [](Bytes bytes) { return failureOf([&] { FastwsAck{bytes}; }); };
  EXPECT_EQ(failure({}), std::nullopt);
  EXPECT_EQ(failure({0x80}), Kind::truncated);          // inside a key
  EXPECT_EQ(failure({0x0A}), Kind::truncated);          // where a length should be
  EXPECT_EQ(failure({0x0A, 2, 'x'}), Kind::truncated);  // shorter than its length
  EXPECT_EQ(failure({0x0A, 1, 0xFF}), Kind::invalidUTF8);
  EXPECT_EQ(failure({0x0A, 3, 0xED, 0xA0, 0x80}), Kind::invalidUTF8);  // half a surrogate pair
  EXPECT_EQ(failure({0x12, 1, 0xFF}), std::nullopt);  // bytes under a number that is a flag's
  EXPECT_EQ(failure({0x51, 1, 2, 3, 4, 5, 6, 7}), Kind::truncated);  // 7 of 8 bytes
  EXPECT_EQ(failure({0x51, 1, 2, 3, 4, 5, 6, 7, 8}), std::nullopt);
  EXPECT_EQ(failure({0x55, 1, 2, 3}), Kind::truncated);  // 3 of 4
  EXPECT_EQ(failure({0x52, 2, 1}), Kind::truncated);

  Bytes varint{0x10, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1};
  EXPECT_EQ(failure(varint), std::nullopt);
  varint.back() = 2;
  EXPECT_EQ(failure(varint), Kind::malformedVarint);
  varint.back() = 0x81;
  EXPECT_EQ(failure(varint), Kind::malformedVarint);
  // A length near 2^64 must not wrap around.
  EXPECT_EQ(failure({0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1}),
            Kind::truncated);

  for (const int wireType : {3, 4, 6, 7}) {
    for (const int field : {1, 15}) {
      const Bytes bytes{static_cast<std::uint8_t>(field << 3 | wireType), 0};
      try {
        const FastwsAck decoded(bytes);
        ADD_FAILURE() << "wire type " << wireType;
      } catch (const ProtoDecodeError& error) {
        EXPECT_EQ(error.kind(), Kind::unknownWireType);
        EXPECT_EQ(error.wireType(), wireType);
        EXPECT_EQ(std::string(error.what()), "unknownWireType(" + std::to_string(wireType) + ")");
      }
    }
  }
}

TEST(FastwsMessagesTest, whatADecoderDoesNotKnowIsSkipped) {
  const FastwsAck mistyped(Bytes{0x08, 5, 0x10, 7, 0x10, 0, 0x10, 2, 0x9A, 6, 1, 'x'});
  EXPECT_THAT(mistyped.requestId, IsEmpty());
  EXPECT_TRUE(mistyped.ok);  // the last of three, and any number but 0
  const FastwsWelcome wide(Bytes{0x08, 0x81, 0x80, 0x80, 0x80, 0x10});
  EXPECT_EQ(wide.pingIntervalMs, 1U);  // the low half of 2^32 + 1
}

TEST(FastwsMessagesTest, aBadEntryCostsItselfOnly) {
  const Bytes good{0x0A, 1, 'a'};
  const Bytes bad{0x0A, 9};
  FastwsServerBatch batch;
  batch.payloads = {good, bad, {}, good};
  const auto messages = batch.decodedMessages();
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[0].message, "a");
  EXPECT_EQ(messages[1].message, "");
  EXPECT_EQ(messages[2].message, "a");
}

TEST(FastwsMessagesTest, aListOfMillionsStaysShort) {
  Bytes entries;
  for (int i = 0; i < 1'000'000; ++i) {
    entries.push_back(0x12);
    entries.push_back(0);
  }
  EXPECT_EQ(FastwsServerBatch(entries).payloads.size(), FastwsServerBatch::mostEntries);
}

}  // namespace
}  // namespace kestrova
