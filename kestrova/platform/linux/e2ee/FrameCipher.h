#pragma once

#include <kestrova/platform/FrameCryptor.h>
#include <kestrova/platform/linux/e2ee/FrameFormat.h>
#include <kestrova/platform/linux/e2ee/KeyRing.h>

#include <openssl/evp.h>

#include <memory>
#include <vector>

namespace kestrova::e2ee {

/// Encrypts or decrypts the frames of one stream. One thread at a time. Memory is taken for the
/// first frames and for larger ones than there were; not for each.
class FrameCipher {
public:
  FrameCipher(std::shared_ptr<KeyRing> keys, FrameCodec codec);

  struct Result {
    /// What goes on: the frame itself, or bytes of the cipher's, good until the next call. Nothing
    /// where the frame must go no further.
    std::optional<ByteView> frame = {};
    /// Nothing for a frame that says nothing about keys.
    std::optional<RTCFrameCryptorState> state = RTCFrameCryptorState::ok;
  };
  Result encrypt(ByteView frame);
  /// Where only a later key opens the frame, the ring goes on to that one, and the state is
  /// `keyRatcheted`.
  Result decrypt(ByteView frame);

private:
  struct ContextFree {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  };
  using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextFree>;
  /// What there is of one key of the ring.
  struct Keyed {
    Context context;
    std::uint32_t version = 0;
    std::int64_t failures = 0;  // in a row
  };
  /// The pieces of an encrypted frame.
  struct Sealed {
    ByteView authenticated;
    ByteView ciphertext;
    ByteView tag;
    Trailer trailer;
  };

  bool isMarkedClear(ByteView frame) const;
  Keyed* keyed(std::size_t index);
  bool install(Context& context, const FrameKey& key) const;
  bool seal(EVP_CIPHER_CTX* context, const Trailer& trailer, ByteView authenticated, ByteView plain,
            std::uint8_t* out) const;
  bool open(EVP_CIPHER_CTX* context, const Sealed& sealed, std::uint8_t* out) const;
  bool openWithLaterKey(Keyed& key, const Sealed& sealed, std::uint8_t* out);
  bool nextNonce(Trailer& trailer);

  const std::shared_ptr<KeyRing> _ring;
  const FrameCodec _codec;
  std::vector<Keyed> _keys;  // by index
  Context _trial;            // with keys that may come to be used
  Bytes _out;
  Bytes _scratch;
  std::array<std::uint8_t, kNonceSize> _nonce{};
  std::uint32_t _framesOfNonce = 0;
};

}  // namespace kestrova::e2ee
