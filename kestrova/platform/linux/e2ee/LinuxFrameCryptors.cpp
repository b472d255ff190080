#include <kestrova/platform/Queue.h>
#include <kestrova/platform/linux/e2ee/FrameCipher.h>
#include <kestrova/platform/linux/e2ee/FrameGate.h>
#include <kestrova/platform/linux/e2ee/LinuxFrameCryptors.h>

#include <atomic>
#include <mutex>
#include <string>
#include <utility>

namespace kestrova {
namespace {

using namespace e2ee;

/// The guard of one gate.
class FrameCryptorImpl final : public RTCFrameCryptor,
                               public FrameGuard,
                               public std::enable_shared_from_this<FrameCryptorImpl> {
public:
  enum class Side { sender, receiver };

  FrameCryptorImpl(Side side, std::string participantId, FrameCodec codec,
                   std::shared_ptr<KeyRing> keys)
      : _side(side),
        _participantId(std::move(participantId)),
        _clearAtFirst(side == Side::receiver && !keys->options().discardFrameWhenCryptorNotReady),
        _reports(SerialQueue::make("com.kestrova.e2ee.reports")),
        _cipher(std::move(keys), codec) {}

  std::string participantId() const override { return _participantId; }
  bool enabled() const override { return _stage == Stage::on; }

  void setEnabled(bool enabled) override {
    auto fresh = Stage::fresh;
    if (enabled)
      _stage = Stage::on;
    else if (!_stage.compare_exchange_strong(fresh, Stage::fresh))
      _stage = Stage::off;
  }

  void setDelegate(std::weak_ptr<RTCFrameCryptorDelegate> delegate) override {
    std::scoped_lock held(_delegateLock);
    _delegate = std::move(delegate);
  }

  bool pass(webrtc::TransformableFrameInterface& frame) override {
    const auto stage = _stage.load();
    if (stage != Stage::on) return stage == Stage::fresh && _clearAtFirst;
    std::optional<RTCFrameCryptorState> news;
    bool passes = false;
    {
      std::scoped_lock held(_frameLock);
      const auto data = frame.GetData();
      const ByteView bytes(data.data(), data.size());
      const auto result = _side == Side::sender ? _cipher.encrypt(bytes) : _cipher.decrypt(bytes);
      passes = result.frame.has_value();
      if (passes && result.frame->data() != bytes.data())
        frame.SetData({result.frame->data(), result.frame->size()});
      if (result.state && std::exchange(_state, *result.state) != *result.state) news = _state;
    }
    if (news) report(*news);
    return passes;
  }

private:
  enum class Stage { fresh, on, off };

  void report(RTCFrameCryptorState state) {
    _reports->async([weak = weak_from_this(), state] {
      const auto self = weak.lock();
      if (!self) return;
      std::shared_ptr<RTCFrameCryptorDelegate> delegate;
      {
        std::scoped_lock held(self->_delegateLock);
        delegate = self->_delegate.lock();
      }
      if (delegate) delegate->frameCryptor(self, self->_participantId, state);
    });
  }

  const Side _side;
  const std::string _participantId;
  const bool _clearAtFirst;
  const std::shared_ptr<SerialQueue> _reports;
  std::atomic<Stage> _stage{Stage::fresh};
  std::mutex _delegateLock;
  std::weak_ptr<RTCFrameCryptorDelegate> _delegate;
  std::mutex _frameLock;
  FrameCipher _cipher;  // under _frameLock, as is the next
  RTCFrameCryptorState _state = RTCFrameCryptorState::new_;
};

class LinuxFrameCryptors final : public FrameCryptors {
public:
  std::shared_ptr<RTCFrameCryptorKeyProvider> makeKeyProvider(
      const FrameCryptorKeyOptions& options) override {
    return std::make_shared<KeyRing>(options);
  }

  std::shared_ptr<RTCFrameCryptor> makeFrameCryptor(
      const std::shared_ptr<RTCPeerConnectionFactory>&,
      const std::shared_ptr<RTCRtpSender>& rtpSender, const std::string& participantId,
      int algorithm, const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) override {
    return make(FrameCryptorImpl::Side::sender, std::dynamic_pointer_cast<GatedSender>(rtpSender),
                participantId, algorithm, keyProvider);
  }
  std::shared_ptr<RTCFrameCryptor> makeFrameCryptor(
      const std::shared_ptr<RTCPeerConnectionFactory>&,
      const std::shared_ptr<RTCRtpReceiver>& rtpReceiver, const std::string& participantId,
      int algorithm, const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) override {
    return make(FrameCryptorImpl::Side::receiver,
                std::dynamic_pointer_cast<GatedReceiver>(rtpReceiver), participantId, algorithm,
                keyProvider);
  }

private:
  template <class End>
  static std::shared_ptr<RTCFrameCryptor> make(
      FrameCryptorImpl::Side side, const std::shared_ptr<End>& end,
      const std::string& participantId, int algorithm,
      const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) {
    auto keys = std::dynamic_pointer_cast<KeyRing>(keyProvider);
    if (algorithm != aesGcm || !end || !end->gate() || !keys) return nullptr;
    const auto& gate = end->gate();
    auto cryptor =
        std::make_shared<FrameCryptorImpl>(side, participantId, gate->codec(), std::move(keys));
    gate->setGuard(cryptor);
    return cryptor;
  }
};

}  // namespace

std::shared_ptr<FrameCryptors> makeFrameCryptors() {
  return std::make_shared<LinuxFrameCryptors>();
}

}  // namespace kestrova
