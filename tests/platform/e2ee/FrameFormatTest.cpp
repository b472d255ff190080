#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Frames.h"
#include <random>

namespace kestrova::e2ee::test {
namespace {

struct Clear {
  FrameCodec codec;
  Bytes frame;
  std::size_t size;  // 0: the frame is refused
  std::size_t authenticatedFrom;
};

TEST(FrameFormatTest, leavesReadableWhatServersAndReceiversRead) {
  const Bytes slice = {0, 0, 1, 0x65, 0x88, 0x84, 0, 1, 0x11, 0x22};
  Bytes withSets = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xCE, 0, 0, 0, 1, 0x06, 5};
  const auto before = withSets.size();
  withSets.insert(withSets.end(), slice.begin(), slice.end());
  const std::vector<Clear> rows = {
      {FrameCodec::opus, {0x78}, 1, 0},
      {FrameCodec::vp9, {1, 2, 3}, 0, 0},
      {FrameCodec::vp8, Bytes(10, 0x10), 10, 0},
      {FrameCodec::vp8, Bytes(3, 0x11), 3, 0},
      {FrameCodec::h264, slice, 8, 3},
      {FrameCodec::h264, withSets, before + 8, before + 3},
  };
  for (const auto& row : rows) {
    const auto part = clearPart(row.codec, row.frame);
    ASSERT_TRUE(part) << &row - rows.data();
    EXPECT_EQ(part->size, row.size) << &row - rows.data();
    EXPECT_EQ(part->authenticatedFrom, row.authenticatedFrom) << &row - rows.data();
  }
  const std::vector<Clear> refused = {{FrameCodec::unknown, {1}, 0, 0},
                                      {FrameCodec::opus, {}, 0, 0},
                                      {FrameCodec::vp8, Bytes(9, 0x10), 0, 0},
                                      {FrameCodec::vp8, Bytes(2, 0x11), 0, 0},
                                      {FrameCodec::h264, {0, 0, 1, 0x67}, 0, 0},
                                      {FrameCodec::h264, {0, 0, 1}, 0, 0},
                                      {FrameCodec::h264, {0, 0, 1, 0x65, 1}, 0, 0}};
  for (const auto& row : refused)
    EXPECT_FALSE(clearPart(row.codec, row.frame)) << &row - refused.data();
}

TEST(FrameFormatTest, knowsCodecsInAnyCase) {
  EXPECT_EQ(frameCodec("video/vp8"), FrameCodec::vp8);
  EXPECT_EQ(frameCodec("VIDEO/H264"), FrameCodec::h264);
  EXPECT_EQ(frameCodec("audio/OPUS"), FrameCodec::opus);
  for (const auto* other : {"", "video/AV1", "audio/opu", "video/VP90"})
    EXPECT_EQ(frameCodec(other), FrameCodec::unknown) << other;
}

/// A picture of few zeros would never reach what matters.
TEST(FrameFormatTest, noStartCodeIsLeftAndNothingIsLost) {
  std::mt19937 random(1);
  std::size_t escaped = 0;
  for (int round = 0; round < 3000; ++round) {
    Bytes all(3 + random() % 40);
    for (auto& byte : all) byte = static_cast<std::uint8_t>(random() % 8 < 6 ? 0 : random() % 5);
    all[0] = 0x65;
    const auto split = 1 + random() % (all.size() - 1);
    const ByteView before(all.data(), split);
    const ByteView body(all.data() + split, all.size() - split);
    const Emulation emulation(before);
    Bytes sent(body.size() + emulation.added(body));
    emulation.escape(body, sent.data());
    escaped += sent.size() - body.size();
    EXPECT_EQ(emulation.isEscaped(sent), sent.size() != body.size());

    // The front is the encoder's own, and may hold anything here: only what is behind it counts.
    Bytes stream(before.begin(), before.end());
    stream.insert(stream.end(), sent.begin(), sent.end());
    for (std::size_t i = std::max<std::size_t>(split, 2); i < stream.size(); ++i)
      EXPECT_FALSE(stream[i - 2] == 0 && stream[i - 1] == 0 && stream[i] < 3) << round;
    Bytes back(sent.size());
    back.resize(emulation.unescape(sent, back.data()));
    EXPECT_EQ(back, Bytes(body.begin(), body.end())) << round;
  }
  EXPECT_GT(escaped, 3000U);
}

TEST(FrameFormatTest, readsOnlyItsOwnTrailer) {
  Bytes body(kOverhead);
  writeTrailer({.keyIndex = 7}, body.data() + kTagSize);
  ASSERT_TRUE(readTrailer(body));
  EXPECT_EQ(readTrailer(body)->keyIndex, 7);
  EXPECT_FALSE(readTrailer(ByteView(body).subspan(1))) << "too short for a tag";
  body.back() ^= 1;
  EXPECT_FALSE(readTrailer(body));
  EXPECT_FALSE(readTrailer({}));
}

}  // namespace
}  // namespace kestrova::e2ee::test
