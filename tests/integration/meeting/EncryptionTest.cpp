#include <gtest/gtest.h>

#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

constexpr double secretTone = 660;

class EncryptionTest : public MeetingFixture {
protected:
  ~EncryptionTest() override { Kestrova::setBaseKeyProvider(nullptr); }

  /// For those who join from now on.
  static std::shared_ptr<BaseKeyProvider> useKey(const char* key) {
    auto provider = std::make_shared<BaseKeyProvider>(true);
    provider->setSharedKey(key);
    Kestrova::setKeyProvider(provider);
    return provider;
  }
  void bothGetMedia() const {
    EXPECT_TRUE(ada->getsMedia(secretTone)) << ada->story();
    EXPECT_TRUE(grace->getsMedia(secretTone)) << grace->story();
  }

  std::shared_ptr<Attendee> ada;
  std::shared_ptr<Attendee> grace;
};

TEST_F(EncryptionTest, ADropAChangeOfModeAndAMoveKeepItEncrypted) {
  useKey("a key");
  ada = joinSmall("ada", secretTone);
  grace = joinSmall("grace", secretTone);
  bothGetMedia();
  EXPECT_TRUE(ada->meeting->e2eeEnabled());
  for (const auto* line :
       {"e2ee ada audio EncryptionSuccess", "e2ee ada video EncryptionSuccess",
        "e2ee grace audio DecryptionSuccess", "e2ee grace video DecryptionSuccess"})
    EXPECT_TRUE(ada->sees(line)) << line << "\n" << ada->story();

  service.control("dropSocket", {{"roomId", "integration"}});
  ASSERT_TRUE(ada->seesTimes("joined", 2) && grace->seesTimes("joined", 2)) << ada->story();
  bothGetMedia();
  EXPECT_TRUE(ada->seesTimes("e2ee ada audio EncryptionSuccess", 2)) << ada->story();

  for (const auto mode : {Mode::RECV_ONLY, Mode::SEND_AND_RECV}) {
    ada->meeting->changeMode(mode);
    ASSERT_TRUE(ada->waitUntil([&] { return ada->meeting->localParticipant()->mode() == mode; }));
  }
  bothGetMedia();

  for (const auto& me : {ada, grace}) {
    me->meeting->switchTo("elsewhere");
    ASSERT_TRUE(me->sees("moved elsewhere")) << me->story();
  }
  bothGetMedia();
  for (const auto& me : {ada, grace})
    for (const auto& line : me->lines()) EXPECT_EQ(line.find("Failed"), line.npos) << line;
  grace->leaveAndWait();
  ada->leaveAndWait();
}

TEST_F(EncryptionTest, TwoKeysKeepPeopleApartUntilTheyAreOne) {
  useKey("ada's key");
  ada = joinSmall("ada", secretTone);
  const auto hers = useKey("grace's key");
  grace = joinSmall("grace", secretTone);
  for (const auto* kind : {"audio", "video"}) {
    EXPECT_TRUE(ada->sees(std::string("e2ee grace ") + kind + " DecryptionFailed"));
    EXPECT_TRUE(grace->sees(std::string("e2ee ada ") + kind + " DecryptionFailed"));
  }
  for (const auto& me : {ada, grace})
    EXPECT_EQ(me->picture->frames + me->sound->loudBlocks, 0) << me->story();
  hers->setSharedKey("ada's key");
  bothGetMedia();
  EXPECT_TRUE(ada->sees("e2ee grace video DecryptionSuccess")) << ada->story();
  EXPECT_EQ(ada->picture->clockWentBack, 0);
}

TEST_F(EncryptionTest, SomebodyWhoHasNoKeyIsNeitherSeenNorHeard) {
  useKey("a key");
  ada = joinSmall("ada", secretTone);
  Kestrova::setBaseKeyProvider(nullptr);
  const auto plain = joinSmall("plain", secretTone);
  EXPECT_FALSE(plain->meeting->e2eeEnabled());
  EXPECT_TRUE(ada->sees("e2ee plain audio DecryptionFailed")) << ada->story();
  EXPECT_TRUE(ada->sees("e2ee plain video DecryptionFailed")) << ada->story();
  useKey("a key");
  grace = joinSmall("grace", secretTone);
  // What there is can only be Ada's.
  EXPECT_TRUE(grace->waitUntil([&] {
    return grace->picture->clocksRead > 20 && grace->sound->loudBlocks > 20;
  })) << grace->story();
  EXPECT_EQ(grace->count("e2ee plain audio DecryptionSuccess"), 0);
}

}  // namespace
}  // namespace kestrova::test
