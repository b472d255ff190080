#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Frames.h"
#include <random>
#include <set>

namespace kestrova::e2ee::test {
namespace {

using State = RTCFrameCryptorState;

/// A frame as an encoder might make one; for H264 with parameter sets and two slices.
Bytes frameOf(FrameCodec codec, std::size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  Bytes frame;
  if (codec == FrameCodec::h264)
    frame = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0, 0, 1, 0x68, 0xCE, 0, 0, 1, 0x65, 0x88, 0x80, 0, 0};
  while (frame.size() < size) frame.push_back(static_cast<std::uint8_t>(random()));
  if (codec == FrameCodec::h264 && size > 400) std::copy_n("\0\0\1\x65\x40", 5, frame.end() - 200);
  return frame;
}

class FrameCipherTest : public testing::TestWithParam<FrameCodec> {
protected:
  const std::shared_ptr<KeyRing> keys = ring();
  FrameCipher sender{keys, GetParam()};
  FrameCipher receiver{ring(), GetParam()};
};

TEST_P(FrameCipherTest, whatIsSentArrivesAndOnlyTheFrontCanBeRead) {
  for (const std::size_t size : {40, 41, 160, 1200, 20'000, 120'000, 3}) {
    if (size < 40 && GetParam() == FrameCodec::h264) continue;
    auto frame = frameOf(GetParam(), size);
    if (size == 3) frame[0] |= 1;  // no key frame of VP8
    const auto sealed = sender.encrypt(frame);
    ASSERT_EQ(sealed.state, State::ok) << size;
    const auto sent = kept(sealed);
    EXPECT_GE(sent.size(), frame.size() + kOverhead);
    const auto clear = clearPart(GetParam(), frame)->size;
    EXPECT_TRUE(std::equal(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(clear),
                           sent.begin()));
    if (size > 1000) {
      EXPECT_EQ(std::search(sent.begin(), sent.end(), frame.end() - 8, frame.end()), sent.end());
    }
    const auto opened = receiver.decrypt(sent);
    EXPECT_EQ(opened.state, State::ok);
    EXPECT_EQ(kept(opened), frame) << size;
  }
}

TEST_P(FrameCipherTest, aFrameThatWasTouchedGoesNoFurther) {
  const auto frame = frameOf(GetParam(), 300);
  const auto sent = kept(sender.encrypt(frame));
  const auto from = clearPart(GetParam(), frame)->authenticatedFrom;
  for (auto at = from; at < sent.size(); ++at) {
    auto touched = sent;
    touched[at] ^= 0x40;
    const auto opened = receiver.decrypt(touched);
    EXPECT_FALSE(opened.frame) << at;
    EXPECT_NE(opened.state, State::ok) << at;
  }
  for (std::size_t size = 1; size < sent.size(); ++size)
    EXPECT_FALSE(receiver.decrypt(ByteView(sent).first(size)).frame) << size;
  EXPECT_EQ(kept(receiver.decrypt(sent)), frame) << "and the next one is good again";
}

TEST_P(FrameCipherTest, anotherKeyOpensNothingUntilItIsTheRightOne) {
  const auto theirs = ring("another key");
  FrameCipher stranger(theirs, GetParam());
  const auto frame = frameOf(GetParam(), 200);
  EXPECT_EQ(stranger.decrypt(kept(sender.encrypt(frame))).state, State::decryptionFailed);
  theirs->setSharedKey(bytes("a key"), 0);
  EXPECT_EQ(kept(stranger.decrypt(kept(sender.encrypt(frame)))), frame);
  keys->ratchetSharedKey(0);
  EXPECT_EQ(stranger.decrypt(kept(sender.encrypt(frame))).state, State::decryptionFailed);
  theirs->ratchetSharedKey(0);
  EXPECT_EQ(kept(stranger.decrypt(kept(sender.encrypt(frame)))), frame);
}

TEST_P(FrameCipherTest, withoutAKeyNothingPassesInEitherDirection) {
  FrameCipher keyless(ring(""), GetParam());
  const auto frame = frameOf(GetParam(), 200);
  const auto unsent = keyless.encrypt(frame);
  EXPECT_FALSE(unsent.frame);
  EXPECT_EQ(unsent.state, State::missingKey);
  const auto unheard = keyless.decrypt(kept(sender.encrypt(frame)));
  EXPECT_FALSE(unheard.frame);
  EXPECT_EQ(unheard.state, State::missingKey);
  EXPECT_EQ(receiver.decrypt(frame).state, State::decryptionFailed) << "one that isn't encrypted";
}

TEST_P(FrameCipherTest, framesWithTheMarkPassAndLoseIt) {
  auto marked = bytes("MAGIC");
  const auto content = frameOf(GetParam(), 60);
  marked.insert(marked.end(), content.begin(), content.end());
  const auto sent = sender.encrypt(marked);
  EXPECT_FALSE(sent.state);
  EXPECT_EQ(kept(sent), marked);
  const auto received = receiver.decrypt(marked);
  EXPECT_FALSE(received.state);
  EXPECT_EQ(kept(received), content);
  EXPECT_FALSE(receiver.decrypt(bytes("MAGIC")).frame) << "nothing is left of it";
}

std::string nameOf(const testing::TestParamInfo<FrameCodec>& tested) {
  constexpr const char* names[] = {"unknown", "opus", "vp8", "vp9", "h264"};
  return names[static_cast<int>(tested.param)];
}

INSTANTIATE_TEST_SUITE_P(Codecs, FrameCipherTest,
                         testing::Values(FrameCodec::opus, FrameCodec::vp8, FrameCodec::vp9,
                                         FrameCodec::h264),
                         nameOf);

TEST(FrameCipherNonceTest, noTwoFramesOfAMeetingShareANonce) {
  const auto keys = ring();
  std::set<Bytes> nonces;
  for (int stream = 0; stream < 20; ++stream) {
    FrameCipher sender(keys, FrameCodec::opus);
    for (int i = 0; i < 200; ++i) {
      const auto sent = kept(sender.encrypt(bytes("?sound")));
      nonces.emplace(sent.end() - kTrailerSize, sent.end() - 2);
    }
  }
  EXPECT_EQ(nonces.size(), 4000U);
}

TEST(FrameCipherKeyTest, framesAreEncryptedWithTheKeyThatWasSetLast) {
  const auto keys = ring("first");
  FrameCipher sender(keys, FrameCodec::opus);
  FrameCipher receiver(keys, FrameCodec::opus);
  const auto old = kept(sender.encrypt(bytes("?old")));
  keys->setSharedKey(bytes("second"), 5);
  const auto fresh = kept(sender.encrypt(bytes("?new")));
  EXPECT_EQ(fresh[fresh.size() - 2], 5);
  EXPECT_EQ(kept(receiver.decrypt(fresh)), bytes("?new"));
  EXPECT_EQ(kept(receiver.decrypt(old)), bytes("?old")) << "the ring still has its key";
  const auto other = ring("first");
  EXPECT_EQ(FrameCipher(other, FrameCodec::opus).decrypt(fresh).state, State::missingKey);
}

}  // namespace
}  // namespace kestrova::e2ee::test
