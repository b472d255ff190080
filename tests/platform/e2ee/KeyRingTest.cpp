#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Frames.h"
#include <atomic>
#include <thread>

namespace kestrova::e2ee::test {
namespace {

using State = RTCFrameCryptorState;

Bytes fromHex(std::string_view hex) {
  Bytes out;
  for (std::size_t i = 0; i < hex.size(); i += 2)
    out.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  return out;
}

TEST(KeyRingTest, derivesWhatAnotherImplementationDerives) {
  // Made with Python's hashlib and hmac.
  const KeyMaterial key(bytes("correct horse"), bytes("TidalMarrowHarborLanternQuail"));
  EXPECT_EQ(Bytes(key.frameKey.begin(), key.frameKey.end()),
            fromHex("1137338c4c4d1cffc1ae222df41a40fa"));
  const auto next = key.next(bytes("TidalMarrowHarborLanternQuail"));
  EXPECT_EQ(next.material,
            fromHex("7dc4bc4ecb41f64bafe4d8337bfd9a6035185033a9badc6f17bdd1a47a95ae36"));
  EXPECT_EQ(Bytes(next.frameKey.begin(), next.frameKey.end()),
            fromHex("c651443ad67a5207f1441abb65c9f75a"));
}

TEST(KeyRingTest, whatItExportsMakesTheSameKeysElsewhere) {
  const auto first = ring("a key");
  EXPECT_EQ(first->exportSharedKey(0), bytes("a key"));
  const auto ratcheted = first->ratchetSharedKey(0);
  ASSERT_TRUE(ratcheted);
  EXPECT_NE(*ratcheted, bytes("a key"));
  EXPECT_EQ(first->exportSharedKey(0), ratcheted);
  const auto second = ring("");
  ASSERT_TRUE(second->setSharedKey(*ratcheted, 3));
  EXPECT_EQ(second->key(3)->bytes, first->key(0)->bytes);
  EXPECT_EQ(second->currentIndex(), 3);
}

TEST(KeyRingTest, refusesPlacesThatThereAreNot) {
  auto options = keyOptions();
  options.keyRingSize = 2;
  const auto keys = ring("", options);
  for (const int index : {-1, 2, 1 << 20}) {
    EXPECT_FALSE(keys->setSharedKey(bytes("k"), index));
    EXPECT_FALSE(keys->exportSharedKey(index));
    EXPECT_FALSE(keys->ratchetSharedKey(index));
  }
  EXPECT_FALSE(keys->setSharedKey({}, 0)) << "no key at all";
  EXPECT_FALSE(keys->exportSharedKey(1));
  EXPECT_FALSE(keys->ratchetSharedKey(1)) << "nothing to ratchet";
  options.keyRingSize = 0;
  options.ratchetWindowSize = -7;
  EXPECT_TRUE(KeyRing(options).setSharedKey(bytes("k"), 0)) << "one place there is";
}

TEST(KeyRingTest, aReceiverFollowsTheRatchetWithinItsWindow) {
  auto options = keyOptions();
  options.ratchetWindowSize = 2;
  const auto theirs = ring("a key");
  const auto ours = ring("a key", options);
  FrameCipher sender(theirs, FrameCodec::opus);
  FrameCipher receiver(ours, FrameCodec::opus);
  FrameCipher other(ours, FrameCodec::opus);
  const auto frame = bytes("?sound");
  EXPECT_EQ(receiver.decrypt(kept(sender.encrypt(frame))).state, State::ok);

  for (int i = 0; i < 3; ++i) theirs->ratchetSharedKey(0);
  EXPECT_EQ(receiver.decrypt(kept(sender.encrypt(frame))).state, State::decryptionFailed)
      << "three steps are too far";
  ours->ratchetSharedKey(0);
  const auto sealed = kept(sender.encrypt(frame));
  const auto opened = receiver.decrypt(sealed);
  EXPECT_EQ(opened.state, State::keyRatcheted);
  EXPECT_EQ(kept(opened), frame);
  EXPECT_EQ(other.decrypt(sealed).state, State::ok) << "all streams go on together";
  EXPECT_EQ(ours->exportSharedKey(0), theirs->exportSharedKey(0));
}

TEST(KeyRingTest, keysMayChangeWhileFramesAreOnTheirWay) {
  const auto keys = ring("a key");
  std::atomic<bool> ending{false};
  std::atomic<int> opened{0};
  const auto work = [&] {
    FrameCipher sender(keys, FrameCodec::h264);
    FrameCipher receiver(keys, FrameCodec::h264);
    Bytes frame(500, 0);
    std::copy_n("\0\0\1\x65\x88", 5, frame.begin());
    while (!ending) {
      const auto sent = kept(sender.encrypt(frame));
      ASSERT_FALSE(sent.empty());
      const auto result = receiver.decrypt(sent);
      // It may have been encrypted just before the change.
      if (!result.frame) continue;
      ASSERT_EQ(kept(result), frame);
      ++opened;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) threads.emplace_back(work);
  for (int i = 0; i < 6; ++i) {
    keys->setSharedKey(bytes("another key"), i % 2);
    keys->ratchetSharedKey(i % 2);
  }
  while (opened < 100) std::this_thread::yield();
  ending = true;
  for (auto& thread : threads) thread.join();
}

TEST(KeyRingTest, givesUpAfterTheFailuresThatAreTolerated) {
  auto options = keyOptions();
  options.failureTolerance = 1;
  const auto keys = ring("ours", options);
  FrameCipher theirs(ring("theirs"), FrameCodec::opus);
  FrameCipher right(ring("ours"), FrameCodec::opus);
  FrameCipher receiver(keys, FrameCodec::opus);
  const auto frame = bytes("?sound");
  receiver.decrypt(kept(theirs.encrypt(frame)));
  EXPECT_EQ(receiver.decrypt(kept(right.encrypt(frame))).state, State::ok) << "one is tolerated";
  for (int i = 0; i < 2; ++i) receiver.decrypt(kept(theirs.encrypt(frame)));
  EXPECT_EQ(receiver.decrypt(kept(right.encrypt(frame))).state, State::decryptionFailed);
  keys->setSharedKey(bytes("ours"), 0);
  EXPECT_EQ(receiver.decrypt(kept(right.encrypt(frame))).state, State::ok) << "a key begins anew";
}

}  // namespace
}  // namespace kestrova::e2ee::test
