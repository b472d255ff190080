#include <kestrova/platform/linux/e2ee/FrameCipher.h>

#include <openssl/rand.h>

#include <algorithm>
#include <utility>

namespace kestrova::e2ee {
namespace {

using State = RTCFrameCryptorState;

/// Far above any frame of a camera; what is larger is refused.
constexpr std::size_t kLargestFrame = 16 * 1024 * 1024;
/// The front of a nonce is drawn at random, so that no two senders of a meeting, which share a key,
/// ever use the same; the rest counts frames.
constexpr std::size_t kRandomNonce = 8;

int sizeOf(ByteView bytes) {
  return static_cast<int>(bytes.size());
}

/// Memory for `size` bytes; never gives any back.
std::uint8_t* room(Bytes& buffer, std::size_t size) {
  if (buffer.size() < size) buffer.resize(size);
  return buffer.data();
}

}  // namespace

FrameCipher::FrameCipher(std::shared_ptr<KeyRing> keys, FrameCodec codec)
    : _ring(std::move(keys)), _codec(codec), _keys(_ring->size()) {}

bool FrameCipher::isMarkedClear(ByteView frame) const {
  const auto& mark = _ring->options().uncryptedMagicBytes;
  return !mark.empty() && frame.size() >= mark.size() &&
         std::equal(mark.begin(), mark.end(), frame.begin());
}

bool FrameCipher::install(Context& context, const FrameKey& key) const {
  if (!context) context.reset(EVP_CIPHER_CTX_new());
  // It encrypts or decrypts as each frame says; the length of the nonce is the cipher's own.
  return context &&
         EVP_CipherInit_ex(context.get(), EVP_aes_128_gcm(), nullptr, key.data(), nullptr, 1) == 1;
}

/// The key of that index, ready for use; nothing when there is none.
FrameCipher::Keyed* FrameCipher::keyed(std::size_t index) {
  auto& mine = _keys[index];
  if (mine.version != _ring->version(index)) {
    auto key = _ring->key(index);
    const bool good = key && install(mine.context, key->bytes);
    if (key) wipe(key->bytes);
    if (!good) return nullptr;
    mine.version = key->version;
    mine.failures = 0;
  }
  return mine.version == 0 ? nullptr : &mine;
}

// ---- Encrypting --------------------------------------------------------------------------------

bool FrameCipher::nextNonce(Trailer& trailer) {
  if (_framesOfNonce == 0 && RAND_bytes(_nonce.data(), kRandomNonce) != 1) return false;
  const auto count = _framesOfNonce++;
  for (std::size_t i = kRandomNonce; i < kNonceSize; ++i)
    _nonce[i] = static_cast<std::uint8_t>(count >> (8 * (kNonceSize - 1 - i)));
  trailer.nonce = _nonce;
  return true;
}

bool FrameCipher::seal(EVP_CIPHER_CTX* context, const Trailer& trailer, ByteView authenticated,
                       ByteView plain, std::uint8_t* out) const {
  int written = 0;
  if (EVP_EncryptInit_ex(context, nullptr, nullptr, nullptr, trailer.nonce.data()) != 1)
    return false;
  if (!authenticated.empty() && EVP_EncryptUpdate(context, nullptr, &written, authenticated.data(),
                                                  sizeOf(authenticated)) != 1)
    return false;
  if (!plain.empty() && EVP_EncryptUpdate(context, out, &written, plain.data(), sizeOf(plain)) != 1)
    return false;
  auto* const tag = out + plain.size();
  if (EVP_EncryptFinal_ex(context, tag, &written) != 1) return false;
  if (EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_GET_TAG, kTagSize, tag) != 1) return false;
  writeTrailer(trailer, tag + kTagSize);
  return true;
}

FrameCipher::Result FrameCipher::encrypt(ByteView frame) {
  if (frame.empty() || isMarkedClear(frame)) return {frame, std::nullopt};
  const auto clear = clearPart(_codec, frame);
  if (!clear || frame.size() > kLargestFrame) return {std::nullopt, State::encryptionFailed};
  Trailer trailer;
  trailer.keyIndex = static_cast<std::uint8_t>(_ring->currentIndex());
  const auto* key = keyed(trailer.keyIndex);
  if (!key) return {std::nullopt, State::missingKey};
  if (!nextNonce(trailer)) return {std::nullopt, State::encryptionFailed};

  const auto plain = frame.subspan(clear->size);
  const auto authenticated =
      frame.subspan(clear->authenticatedFrom, clear->size - clear->authenticatedFrom);
  const auto bodySize = plain.size() + kOverhead;
  auto* out = room(_out, clear->size + bodySize);
  std::copy_n(frame.data(), clear->size, out);
  if (!seal(key->context.get(), trailer, authenticated, plain, out + clear->size))
    return {std::nullopt, State::encryptionFailed};
  if (_codec != FrameCodec::h264) return {ByteView(out, clear->size + bodySize)};

  const ByteView body(out + clear->size, bodySize);
  const Emulation emulation(authenticated);
  const auto added = emulation.added(body);
  if (added == 0) return {ByteView(out, clear->size + bodySize)};
  auto* escaped = room(_scratch, clear->size + bodySize + added);
  std::copy_n(frame.data(), clear->size, escaped);
  emulation.escape(body, escaped + clear->size);
  return {ByteView(escaped, clear->size + bodySize + added)};
}

// ---- Decrypting --------------------------------------------------------------------------------

bool FrameCipher::open(EVP_CIPHER_CTX* context, const Sealed& sealed, std::uint8_t* out) const {
  int written = 0;
  const auto& [authenticated, ciphertext, tag, trailer] = sealed;
  if (EVP_DecryptInit_ex(context, nullptr, nullptr, nullptr, trailer.nonce.data()) != 1)
    return false;
  if (!authenticated.empty() && EVP_DecryptUpdate(context, nullptr, &written, authenticated.data(),
                                                  sizeOf(authenticated)) != 1)
    return false;
  if (!ciphertext.empty() &&
      EVP_DecryptUpdate(context, out, &written, ciphertext.data(), sizeOf(ciphertext)) != 1)
    return false;
  std::array<std::uint8_t, kTagSize> expected{};
  std::copy_n(tag.begin(), kTagSize, expected.begin());
  return EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_SET_TAG, kTagSize, expected.data()) == 1 &&
         EVP_DecryptFinal_ex(context, out + ciphertext.size(), &written) == 1;
}

/// Somebody may have gone on to the next key already.
bool FrameCipher::openWithLaterKey(Keyed& key, const Sealed& sealed, std::uint8_t* out) {
  const std::size_t index = sealed.trailer.keyIndex;
  for (std::size_t steps = 1;; ++steps) {
    auto later = _ring->key(index, steps);
    if (!later || later->version != key.version) return false;
    const bool good = install(_trial, later->bytes) && open(_trial.get(), sealed, out);
    wipe(later->bytes);
    if (!good) continue;
    _ring->advance(index, key.version, steps);
    return true;
  }
}

FrameCipher::Result FrameCipher::decrypt(ByteView frame) {
  if (frame.empty()) return {frame, std::nullopt};
  if (isMarkedClear(frame)) {
    const auto content = frame.subspan(_ring->options().uncryptedMagicBytes.size());
    if (content.empty()) return {std::nullopt, std::nullopt};
    auto* out = room(_out, content.size());
    std::copy(content.begin(), content.end(), out);
    return {ByteView(out, content.size()), std::nullopt};
  }
  const Result failed{std::nullopt, State::decryptionFailed};
  const auto part = clearPart(_codec, frame);
  if (!part || frame.size() > kLargestFrame) return failed;
  const auto clear = frame.first(part->size);
  Sealed sealed;
  sealed.authenticated = clear.subspan(part->authenticatedFrom);
  auto body = frame.subspan(part->size);
  if (_codec == FrameCodec::h264) {
    const Emulation emulation(sealed.authenticated);
    if (emulation.isEscaped(body)) {
      auto* plain = room(_scratch, body.size());
      body = ByteView(plain, emulation.unescape(body, plain));
    }
  }
  const auto trailer = readTrailer(body);
  if (!trailer || trailer->keyIndex >= _ring->size()) return failed;
  sealed.trailer = *trailer;
  sealed.ciphertext = body.first(body.size() - kOverhead);
  sealed.tag = body.subspan(sealed.ciphertext.size(), kTagSize);
  auto* key = keyed(trailer->keyIndex);
  if (!key) return {std::nullopt, State::missingKey};
  const auto tolerance = _ring->options().failureTolerance;
  if (tolerance >= 0 && key->failures > tolerance) return failed;

  auto* out = room(_out, clear.size() + sealed.ciphertext.size());
  std::copy(clear.begin(), clear.end(), out);
  auto state = State::ok;
  if (!open(key->context.get(), sealed, out + clear.size())) {
    if (!openWithLaterKey(*key, sealed, out + clear.size())) {
      ++key->failures;
      return failed;
    }
    state = State::keyRatcheted;
  }
  key->failures = 0;
  return {ByteView(out, clear.size() + sealed.ciphertext.size()), state};
}

}  // namespace kestrova::e2ee
