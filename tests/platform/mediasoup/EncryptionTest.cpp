#include <kestrova/platform/Values.h>
#include <kestrova/platform/linux/e2ee/LinuxFrameCryptors.h>

#include <gtest/gtest.h>

#include "Endpoint.h"

namespace kestrova::test {
namespace {

using State = RTCFrameCryptorState;

/// Notes the states, and comes back into the cryptor each time.
class States final : public RTCFrameCryptorDelegate {
public:
  void frameCryptor(const std::shared_ptr<RTCFrameCryptor>& cryptor, const std::string& id,
                    State state) override {
    cryptor->setEnabled(cryptor->enabled());
    EXPECT_EQ(cryptor->participantId(), id);
    std::scoped_lock held(_lock);
    _last = state;
    _wake.notify_all();
  }
  bool reach(State state) {
    std::unique_lock held(_lock);
    return _wake.wait_for(held, kPatience, [&] { return _last == state; });
  }

private:
  std::mutex _lock;
  std::condition_variable _wake;
  State _last = State::new_;
};

class EncryptionTest : public testing::Test {
protected:
  EncryptionTest() {
    const std::uint8_t key[] = {'k', 'e', 'y'};
    keys->setSharedKey(key, 0);
  }

  void publish() {
    ProducerOptions options;
    options.track = endpoint->cameraTrack(320, 180);
    options.encrypted = true;
    camera = endpoint->produce(std::move(options));
    received = endpoint->consume(camera->id(), true);
  }
  template <class End>
  std::shared_ptr<RTCFrameCryptor> guard(const std::shared_ptr<End>& end) {
    auto cryptor = cryptors->makeFrameCryptor(nullptr, end, "id", FrameCryptors::aesGcm, keys);
    cryptor->setDelegate(states);
    cryptor->setEnabled(true);
    return cryptor;
  }
  double ofCamera(const char* name) const {
    const auto report = parseJson(await(camera->stats())).value_or(List());
    for (const auto& item : report.get_array())
      if (text(asDictionary(item), "type", "") == "outbound-rtp")
        return number(asDictionary(item), name, 0);
    return 0;
  }
  /// Waits until the encoder has made as many more pictures.
  bool encodes(double more) const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (const auto wanted = ofCamera("framesEncoded") + more; ofCamera("framesEncoded") < wanted;)
      if (std::chrono::steady_clock::now() > deadline) return false;
    return true;
  }

  Sfu sfu;
  const std::shared_ptr<Endpoint> endpoint = Endpoint::make(sfu);
  const std::shared_ptr<FrameCryptors> cryptors = makeFrameCryptors();
  const std::shared_ptr<RTCFrameCryptorKeyProvider> keys =
      cryptors->makeKeyProvider({.discardFrameWhenCryptorNotReady = true});
  const std::shared_ptr<States> states = std::make_shared<States>();
  std::shared_ptr<Producer> camera;
  std::shared_ptr<Consumer> received;
};

TEST_F(EncryptionTest, nothingLeavesWithoutACryptorNorAfterIt) {
  publish();
  const auto picture = endpoint->watch(received);
  ASSERT_TRUE(encodes(10));
  EXPECT_EQ(ofCamera("packetsSent"), 0);

  auto sending = guard(camera->rtpSender());
  ASSERT_TRUE(states->reach(State::ok));
  ASSERT_TRUE(encodes(20));
  EXPECT_GT(ofCamera("packetsSent"), 0);
  EXPECT_EQ(picture->seen().pictures, 0) << "its receiver has no cryptor";
  const auto receiving = guard(received->rtpReceiver());
  ASSERT_TRUE(picture->waitForReadings(10));

  sending->setEnabled(false);
  ASSERT_TRUE(encodes(10));  // what was under way is through
  const auto seen = picture->seen().pictures;
  ASSERT_TRUE(encodes(20));
  EXPECT_EQ(picture->seen().pictures, seen);
  sending.reset();
  sending = guard(camera->rtpSender());
  EXPECT_TRUE(picture->waitForReadings(10));
}

TEST_F(EncryptionTest, cryptorsOutliveTheirTransportsAndTheReverse) {
  publish();
  const auto picture = endpoint->watch(received);
  const auto sending = guard(camera->rtpSender());
  auto receiving = guard(received->rtpReceiver());
  ASSERT_TRUE(picture->waitForReadings(5));
  receiving.reset();  // in the middle of its frames
  receiving = guard(received->rtpReceiver());
  ASSERT_TRUE(picture->waitForReadings(5));
  endpoint->sending->close();
  endpoint->receiving->close();
  for (const auto& cryptor : {sending, receiving}) {
    cryptor->setEnabled(false);
    cryptor->setEnabled(true);
  }
  camera.reset();
  received.reset();
  EXPECT_TRUE(sending->enabled());
}

TEST_F(EncryptionTest, whatWasNotMadeForItIsRefused) {
  ProducerOptions options;
  options.track = endpoint->toneTrack(440);
  const auto plain = endpoint->produce(std::move(options));
  const auto sender = plain->rtpSender();
  EXPECT_EQ(sender->track(), plain->track());
  const auto make = [&](int algorithm, const auto& end, const auto& provider) {
    return cryptors->makeFrameCryptor(nullptr, end, "id", algorithm, provider);
  };
  EXPECT_EQ(make(0, sender, keys), nullptr) << "a plain sender";
  EXPECT_EQ(make(0, endpoint->consume(plain->id())->rtpReceiver(), keys), nullptr);
  publish();
  EXPECT_EQ(make(1, camera->rtpSender(), keys), nullptr) << "another algorithm";
  EXPECT_EQ(make(0, camera->rtpSender(), std::shared_ptr<RTCFrameCryptorKeyProvider>()), nullptr);
  EXPECT_EQ(make(0, std::shared_ptr<RTCRtpSender>(), keys), nullptr);
}

}  // namespace
}  // namespace kestrova::test
