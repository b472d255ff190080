#pragma once

#include <kestrova/media/BaseKeyProvider.h>
#include <kestrova/media/MediaType.h>
#include <kestrova/platform/FrameCryptor.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Queue.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

class E2EEManagerDelegate {
public:
  virtual ~E2EEManagerDelegate() = default;
  /// On a background thread. \param id of the producer or consumer
  virtual void encryptionStateChanged(const std::string& id, RTCFrameCryptorState state) = 0;
};

/// The frame cryptors of one room client: one for each camera and microphone that is sent, and for
/// each stream that is received. A shared screen has none and travels unencrypted. Any thread may
/// call; everything returns at once.
class E2EEManager final : public RTCFrameCryptorDelegate,
                          public std::enable_shared_from_this<E2EEManager> {
public:
  E2EEManager(std::shared_ptr<RTCPeerConnectionFactory> peerConnectionFactory,
              std::shared_ptr<BaseKeyProvider> baseKeyProvider);

  void setDelegate(std::weak_ptr<E2EEManagerDelegate> delegate);

  /// A producer without a track gets no cryptor, nor does it later; the same for a consumer.
  void setupEncryption(const std::shared_ptr<Producer>& producer);
  void setupDecryption(const std::shared_ptr<Consumer>& consumer);
  /// Nothing more of it passes. One that has no cryptor does nothing.
  void closeEncryption(const std::shared_ptr<Producer>& producer);
  void closeDecryption(const std::shared_ptr<Consumer>& consumer);
  void cleanupAll();

  void frameCryptor(const std::shared_ptr<RTCFrameCryptor>& cryptor,
                    const std::string& didStateChangeWithParticipantId,
                    RTCFrameCryptorState state) override;

private:
  /// The cryptor of a producer or consumer. An id may come again after a lost connection: the end
  /// of the one before is not the end of the new one.
  struct Guarded {
    std::weak_ptr<const void> stream;
    std::shared_ptr<RTCFrameCryptor> cryptor;
  };
  template <class Stream, class End>
  void setUp(const std::shared_ptr<Stream>& stream, const std::shared_ptr<End>& end);
  template <class Stream>
  void close(const std::shared_ptr<Stream>& stream);

  const std::shared_ptr<RTCPeerConnectionFactory> _peerConnectionFactory;
  const std::shared_ptr<BaseKeyProvider> _baseKeyProvider;
  const std::shared_ptr<FrameCryptors> _platform;
  const std::shared_ptr<SerialQueue> _cryptorQueue;
  std::map<std::string, Guarded> _frameCryptors;  // on _cryptorQueue
  std::mutex _delegateLock;
  std::weak_ptr<E2EEManagerDelegate> _delegate;
};

/// What listeners hear of it; nothing for states that are nobody's news.
/// \param isLocal whether the stream is one that is sent
std::optional<E2EEState> e2eeStateOf(RTCFrameCryptorState state, bool isLocal);

}  // namespace kestrova
