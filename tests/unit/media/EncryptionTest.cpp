#include <kestrova/media/BaseKeyProvider.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using State = RTCFrameCryptorState;

KeyBytes keyBytes(std::string_view text) {
  return KeyBytes(text.begin(), text.end());
}

/// What a call with keys fails with; nothing when it doesn't.
template <class Call>
std::optional<RoomClientError> failureOf(Call call) {
  try {
    call();
  } catch (const RoomClientFailure& failure) {
    return failure.error();
  }
  return std::nullopt;
}

class EncryptionTest : public testing::Test {
protected:
  ~EncryptionTest() override { Kestrova::setBaseKeyProvider(nullptr); }

  void setKey(std::string_view key = "a key") {
    const auto provider = std::make_shared<BaseKeyProvider>(true);
    provider->setSharedKey(key);
    Kestrova::setKeyProvider(provider);
  }
  /// A meeting with a microphone that is sent, and Bob, whose camera and screen are received.
  TestMeeting sending() {
    platform.service->answer("produce", {{"id", "mic"}});
    auto test = TestMeeting::joined(platform, {.micEnabled = true});
    bob = test.addPeer("bob");
    bob->addEventListener(bobs);
    test.announce("cam", "bob", "video");
    test.announce("screen", "bob", "video", true);
    return test;
  }
  void reach(const std::string& id, State state) {
    platform.cryptors->of(id)->reach(state);
    platform.pump();
  }

  TestPlatform platform;
  std::shared_ptr<Participant> bob;
  const std::shared_ptr<RecordingParticipantListener> bobs =
      std::make_shared<RecordingParticipantListener>();
};

// ---- Keys --------------------------------------------------------------------------------------

TEST_F(EncryptionTest, aKeyCountsWithoutTheWhiteSpaceAroundIt) {
  BaseKeyProvider provider(true);
  EXPECT_FALSE(provider.isSharedKey());
  EXPECT_EQ(provider.exportSharedKey(), std::nullopt);
  EXPECT_EQ(provider.ratchetSharedKey(), std::nullopt);
  for (const auto* text : {"a key", " \t a key\r\n", "\u00A0\u3000a key\u2028\u0085"}) {
    provider.setSharedKey(text);
    EXPECT_EQ(provider.exportSharedKey(), keyBytes("a key"));
  }
  EXPECT_TRUE(provider.isSharedKey());
  EXPECT_EQ(provider.ratchetSharedKey(), keyBytes("a key+"));
}

TEST_F(EncryptionTest, aKeyThatIsNoneIsRefused) {
  BaseKeyProvider provider(true);
  const auto set = [&](std::string_view key) {
    return failureOf([&] { provider.setSharedKey(key); });
  };
  EXPECT_EQ(set(""), RoomClientError::sharedKeyIssue);
  EXPECT_EQ(set("  \n\u2003 "), RoomClientError::sharedKeyIssue);
  EXPECT_EQ(set(" \xFF "), RoomClientError::keyEncodingFailed);
  platform.cryptors->keys->refuses = true;
  EXPECT_EQ(set("good"), RoomClientError::sharedKeyIssue);
  EXPECT_FALSE(provider.isSharedKey());
}

TEST_F(EncryptionTest, theProviderIsMadeWithWhatAllClientsShare) {
  const BaseKeyProvider provider(true);
  const auto& made = platform.cryptors->madeWith;
  EXPECT_EQ(made.ratchetSalt, keyBytes("TidalMarrowHarborLanternQuail"));
  EXPECT_EQ(made.uncryptedMagicBytes, keyBytes("Ember-Walnut-Orchid-Gable"));
  EXPECT_EQ(made.ratchetWindowSize, 0);
  EXPECT_EQ(made.failureTolerance, -1);
  EXPECT_EQ(made.keyRingSize, 16);
  EXPECT_TRUE(made.sharedKeyMode && made.discardFrameWhenCryptorNotReady);
}

TEST_F(EncryptionTest, aProviderWithoutAKeyLeavesTheEarlierOne) {
  setKey();
  const auto before = Kestrova::baseKeyProvider();
  const auto keyless = std::make_shared<BaseKeyProvider>(true);
  EXPECT_EQ(failureOf([&] { Kestrova::setKeyProvider(keyless); }),
            RoomClientError::sharedKeyNotFound);
  EXPECT_EQ(failureOf([&] { Kestrova::setKeyProvider(nullptr); }),
            RoomClientError::sharedKeyNotFound);
  EXPECT_EQ(Kestrova::baseKeyProvider(), before);
  EXPECT_TRUE(platform.traces.has("Error while setting up key provider"));
}

// ---- Meetings ----------------------------------------------------------------------------------

TEST_F(EncryptionTest, cameraAndMicrophoneAreEncryptedAndAScreenIsNot) {
  setKey();
  const auto test = sending();
  EXPECT_TRUE(test.meeting->e2eeEnabled());
  ASSERT_EQ(platform.media->published.size(), 1U);
  EXPECT_TRUE(platform.media->published[0].encrypted);
  EXPECT_THAT(platform.media->consumedEncrypted, ElementsAre("cam"));
  EXPECT_TRUE(platform.cryptors->of("mic")->enabled());
  EXPECT_TRUE(platform.cryptors->of("cam")->enabled());
  EXPECT_EQ(platform.cryptors->of("screen"), nullptr);
}

TEST_F(EncryptionTest, withoutAKeyNothingIs) {
  const auto test = sending();
  EXPECT_FALSE(test.meeting->e2eeEnabled());
  EXPECT_FALSE(platform.media->published[0].encrypted);
  EXPECT_THAT(platform.media->consumedEncrypted, IsEmpty());
  EXPECT_EQ(platform.cryptors->of("mic"), nullptr);
  setKey();
  EXPECT_FALSE(test.meeting->e2eeEnabled()) << "a key that comes after the join is for the next";
}

TEST_F(EncryptionTest, listenersHearWhatBecomesOfAStream) {
  setKey();
  const auto test = sending();
  test.localListener->take();
  bobs->take();
  for (const auto state : {State::new_, State::missingKey, State::keyRatcheted}) {
    reach("cam", state);
    reach("mic", state);
  }
  EXPECT_THAT(test.localListener->lines(), IsEmpty());
  EXPECT_THAT(bobs->lines(), IsEmpty());

  for (const auto state : {State::ok, State::decryptionFailed, State::internalError})
    reach("cam", state);
  EXPECT_THAT(bobs->lines(), ElementsAre("e2eeStateChanged cam of bob DecryptionSuccess",
                                         "e2eeStateChanged cam of bob DecryptionFailed",
                                         "e2eeStateChanged cam of bob InternalError"));
  for (const auto state : {State::ok, State::encryptionFailed}) reach("mic", state);
  EXPECT_THAT(test.localListener->lines(),
              ElementsAre("e2eeStateChanged mic of me EncryptionSuccess",
                          "e2eeStateChanged mic of me EncryptionFailed"));
  EXPECT_TRUE(platform.traces.has("Emitting E2EE_STATE_CHANGED Event"));
}

TEST_F(EncryptionTest, aStateThatComesAheadOfItsStreamIsToldBehindIt) {
  setKey();
  platform.service->answer("produce", {{"id", "mic"}});
  auto test = TestMeeting::joined(platform);
  platform.service->withhold("produce");
  test.meeting->unmuteMic();
  platform.pump();
  test.localListener->take();
  // The answer makes the producer and its cryptor; its first frame is encrypted at once.
  platform.cryptors->onEnabled = [](ScriptedCryptor& cryptor) { cryptor.reach(State::ok); };
  platform.service->answerLate("produce", ScriptedService::ok({{"id", "mic"}}));
  platform.pump();
  EXPECT_THAT(test.localListener->lines(),
              ElementsAre("onStreamEnabled mic audio of me",
                          "e2eeStateChanged mic of me EncryptionSuccess"));
}

TEST_F(EncryptionTest, whatIsNotReadyGoesWithoutACryptorAndNobodyTriesAgain) {
  setKey();
  platform.media->refused.insert("track");
  auto test = sending();
  EXPECT_EQ(platform.cryptors->of("mic"), nullptr);
  EXPECT_EQ(platform.cryptors->of("cam"), nullptr);
  EXPECT_TRUE(platform.traces.has("Track is not ready for encryption!"));
  platform.media->refused.clear();
  platform.cryptors->refuses = true;
  test.announce("cam2", "bob", "video");
  EXPECT_TRUE(platform.traces.has("Failed to create frameCryptor!"));
  EXPECT_EQ(bob->streams().size(), 3U) << "the streams are there all the same";
}

TEST_F(EncryptionTest, aStreamThatEndsTakesItsCryptorAlong) {
  setKey();
  auto test = sending();
  test.notify("consumerClosed", {{"consumerId", "cam"}});
  platform.advance(std::chrono::seconds(1));
  EXPECT_EQ(platform.cryptors->of("cam"), nullptr);
  test.meeting->muteMic();
  platform.pump();
  EXPECT_EQ(platform.cryptors->of("mic"), nullptr);
  EXPECT_EQ(platform.journal.count("cryptor mic.off"), 1);
}

TEST_F(EncryptionTest, aReturnBringsNewCryptorsAndALeaveEndsThem) {
  setKey();
  auto test = sending();
  const auto before = platform.cryptors->of("mic");
  test.socket().drop();
  platform.pump();
  EXPECT_EQ(platform.cryptors->of("cam"), nullptr);
  platform.service->answer("produce", {{"id", "mic2"}});
  test.socket().open();
  platform.advance(std::chrono::seconds(1));
  test.decide("allowed");
  EXPECT_FALSE(before->enabled());
  EXPECT_TRUE(platform.cryptors->of("mic2")->enabled());
  EXPECT_TRUE(test.meeting->e2eeEnabled());
  const auto last = platform.cryptors->of("mic2");
  test.meeting->leave();
  platform.pump();
  EXPECT_FALSE(last->enabled());
  last->reach(State::ok);  // too late for anybody
  platform.pump();
}

TEST_F(EncryptionTest, aStateOfNobodysStreamIsTraced) {
  setKey();
  auto test = sending();
  const auto cryptor = platform.cryptors->of("cam");
  test.notify("consumerClosed", {{"consumerId", "cam"}});
  platform.advance(std::chrono::seconds(1));
  cryptor->reach(State::decryptionFailed);
  platform.pump();
  EXPECT_TRUE(platform.traces.has("Could not find participant with ID: N/A"));
}

TEST_F(EncryptionTest, theKeyOfTheJoinCountsWhateverWasAskedOfTheMeetingBefore) {
  platform.service->answer("produce", {{"id", "mic"}});
  TestMeeting test(platform, {.micEnabled = true});
  test.meeting->pubsub();
  setKey();
  test.lookUp();
  test.reachSocket();
  test.decide("allowed");
  EXPECT_TRUE(test.meeting->e2eeEnabled());
  EXPECT_TRUE(platform.cryptors->of("mic")->enabled());
}

}  // namespace
}  // namespace kestrova::test
