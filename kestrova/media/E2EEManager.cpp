#include <kestrova/media/E2EEManager.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

E2EEManager::E2EEManager(std::shared_ptr<RTCPeerConnectionFactory> peerConnectionFactory,
                         std::shared_ptr<BaseKeyProvider> baseKeyProvider)
    : _peerConnectionFactory(std::move(peerConnectionFactory)),
      _baseKeyProvider(std::move(baseKeyProvider)),
      _platform(Platform::current()->frameCryptors),
      _cryptorQueue(SerialQueue::make("com.kestrova.e2ee")) {}

void E2EEManager::setDelegate(std::weak_ptr<E2EEManagerDelegate> delegate) {
  std::scoped_lock held(_delegateLock);
  _delegate = std::move(delegate);
}

void E2EEManager::setupEncryption(const std::shared_ptr<Producer>& producer) {
  setUp(producer, producer->rtpSender());
}

void E2EEManager::setupDecryption(const std::shared_ptr<Consumer>& consumer) {
  setUp(consumer, consumer->rtpReceiver());
}

void E2EEManager::closeEncryption(const std::shared_ptr<Producer>& producer) {
  close(producer);
}

void E2EEManager::closeDecryption(const std::shared_ptr<Consumer>& consumer) {
  close(consumer);
}

template <class Stream, class End>
void E2EEManager::setUp(const std::shared_ptr<Stream>& stream, const std::shared_ptr<End>& end) {
  if (!end || !end->track()) return traceDebug("Track is not ready for encryption!");
  _cryptorQueue->async([weak = weak_from_this(), stream, end] {
    const auto self = weak.lock();
    if (!self || stream->closed()) return;
    const auto id = stream->id();
    const auto cryptor =
        self->_platform ? self->_platform->makeFrameCryptor(self->_peerConnectionFactory, end, id,
                                                            FrameCryptors::aesGcm,
                                                            self->_baseKeyProvider->keyProvider())
                        : nullptr;
    if (!cryptor) return traceDebug("Failed to create frameCryptor!");
    cryptor->setDelegate(weak);
    self->_frameCryptors[id] = {stream, cryptor};
    cryptor->setEnabled(true);
  });
}

template <class Stream>
void E2EEManager::close(const std::shared_ptr<Stream>& stream) {
  _cryptorQueue->async([weak = weak_from_this(), stream] {
    const auto self = weak.lock();
    if (!self) return;
    const auto found = self->_frameCryptors.find(stream->id());
    if (found == self->_frameCryptors.end() || found->second.stream.lock() != stream) return;
    found->second.cryptor->setEnabled(false);
    self->_frameCryptors.erase(found);
  });
}

void E2EEManager::cleanupAll() {
  _cryptorQueue->async([self = shared_from_this()] {
    for (const auto& [id, guarded] : std::exchange(self->_frameCryptors, {}))
      guarded.cryptor->setEnabled(false);
  });
}

void E2EEManager::frameCryptor(const std::shared_ptr<RTCFrameCryptor>& /*cryptor*/,
                               const std::string& didStateChangeWithParticipantId,
                               RTCFrameCryptorState state) {
  std::shared_ptr<E2EEManagerDelegate> delegate;
  {
    std::scoped_lock held(_delegateLock);
    delegate = _delegate.lock();
  }
  if (delegate) delegate->encryptionStateChanged(didStateChangeWithParticipantId, state);
}

std::optional<E2EEState> e2eeStateOf(RTCFrameCryptorState state, bool isLocal) {
  switch (state) {
    case RTCFrameCryptorState::ok:
      return isLocal ? E2EEState::EncryptionSuccess : E2EEState::DecryptionSuccess;
    case RTCFrameCryptorState::encryptionFailed:
      return E2EEState::EncryptionFailed;
    case RTCFrameCryptorState::decryptionFailed:
      return E2EEState::DecryptionFailed;
    case RTCFrameCryptorState::internalError:
      return E2EEState::InternalError;
    case RTCFrameCryptorState::new_:
    case RTCFrameCryptorState::missingKey:
    case RTCFrameCryptorState::keyRatcheted:
      break;
  }
  return std::nullopt;
}

}  // namespace kestrova
