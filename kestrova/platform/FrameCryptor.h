#pragma once

#include <kestrova/platform/WebRTC.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestrova {

/// What the keys of a meeting are made with. The two byte strings must be the same for everybody.
struct FrameCryptorKeyOptions {
  std::vector<std::uint8_t> ratchetSalt;
  /// How many steps of the ratchet a receiver tries by itself when a frame doesn't open.
  std::int32_t ratchetWindowSize = 0;
  bool sharedKeyMode = true;  ///< one key for all participants
  /// A frame that starts with them is not encrypted.
  std::vector<std::uint8_t> uncryptedMagicBytes;
  /// After more failures in a row than this a stream's frames are not tried any more until there is
  /// another key; below 0 they always are.
  std::int32_t failureTolerance = -1;
  std::int32_t keyRingSize = 16;  ///< 1 to 256
  /// What a receiver does with frames before its cryptor is first enabled: discard them, or pass
  /// them on as they are. A sender lets nothing out unencrypted, whatever this says.
  bool discardFrameWhenCryptorNotReady = false;
};

/// The keys of a meeting by their index, shared by all its cryptors. Thread-safe.
class RTCFrameCryptorKeyProvider {
public:
  virtual ~RTCFrameCryptorKeyProvider() = default;
  /// Takes tens of milliseconds: a key that a person has thought of must be dear to try. From now
  /// on frames are encrypted with it. \return whether there is such a place in the ring, and a key
  virtual bool setSharedKey(std::span<const std::uint8_t> key, int index) = 0;
  /// The key as it is now, which `setSharedKey` of another provider takes; nothing without one.
  virtual std::optional<std::vector<std::uint8_t>> exportSharedKey(int index) const = 0;
  /// Replaces the key by the next one, which follows from it, but doesn't lead back.
  virtual std::optional<std::vector<std::uint8_t>> ratchetSharedKey(int index) = 0;
};

enum class RTCFrameCryptorState {
  new_,
  ok,
  encryptionFailed,
  decryptionFailed,
  missingKey,
  keyRatcheted,
  internalError
};

class RTCFrameCryptor;

class RTCFrameCryptorDelegate {
public:
  virtual ~RTCFrameCryptorDelegate() = default;
  /// On a background thread, with no lock held; those of one cryptor in their order.
  virtual void frameCryptor(const std::shared_ptr<RTCFrameCryptor>& cryptor,
                            const std::string& didStateChangeWithParticipantId,
                            RTCFrameCryptorState state) = 0;
};

/// Encrypts what one sender sends, or decrypts what one receiver receives, for as long as it lives.
/// Thread-safe. What can't be encrypted is not sent, what can't be decrypted is not played.
class RTCFrameCryptor {
public:
  virtual ~RTCFrameCryptor() = default;
  virtual std::string participantId() const = 0;
  virtual void setDelegate(std::weak_ptr<RTCFrameCryptorDelegate> delegate) = 0;
  /// Off at first. Once it has been on, nothing passes while it is off.
  virtual bool enabled() const = 0;
  virtual void setEnabled(bool enabled) = 0;
};

/// Makes cryptors. Thread-safe.
class FrameCryptors {
public:
  /// AES-GCM, the one that there is.
  static constexpr int aesGcm = 0;

  virtual ~FrameCryptors() = default;
  virtual std::shared_ptr<RTCFrameCryptorKeyProvider> makeKeyProvider(
      const FrameCryptorKeyOptions& options) = 0;
  /// Nothing for another algorithm, for objects that something else made, and for a sender or
  /// receiver that was not made for encryption.
  virtual std::shared_ptr<RTCFrameCryptor> makeFrameCryptor(
      const std::shared_ptr<RTCPeerConnectionFactory>& factory,
      const std::shared_ptr<RTCRtpSender>& rtpSender, const std::string& participantId,
      int algorithm, const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) = 0;
  virtual std::shared_ptr<RTCFrameCryptor> makeFrameCryptor(
      const std::shared_ptr<RTCPeerConnectionFactory>& factory,
      const std::shared_ptr<RTCRtpReceiver>& rtpReceiver, const std::string& participantId,
      int algorithm, const std::shared_ptr<RTCFrameCryptorKeyProvider>& keyProvider) = 0;
};

}  // namespace kestrova
