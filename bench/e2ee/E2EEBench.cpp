#include <kestrova/platform/linux/e2ee/FrameCipher.h>

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <time.h>

#include "Allocations.h"
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <vector>

// What the cryptor takes beside the bare cipher for the same frames, and how often it takes memory.

namespace kestrova::e2ee {
namespace {

constexpr std::size_t rounds = 201;
// A moment each, so that whatever else the machine does meets both alike.
constexpr std::size_t bytesARound = 1024 * 1024;
constexpr std::size_t mostFramesARound = 500;

std::atomic<std::uint64_t> cipherMemory{0};

struct Codec {
  const char* name;
  FrameCodec codec;
};
constexpr Codec codecs[] = {
    {"Opus", FrameCodec::opus}, {"VP8", FrameCodec::vp8}, {"H264", FrameCodec::h264}};

/// The same key, nonce and authenticated bytes, and nothing else.
class Bare {
public:
  explicit Bare(std::size_t authenticated) : _authenticated(authenticated) {
    RAND_bytes(_key, sizeof _key);
    EVP_CipherInit_ex(_context, EVP_aes_128_gcm(), nullptr, _key, nullptr, 1);
  }
  ~Bare() { EVP_CIPHER_CTX_free(_context); }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  void encrypt(ByteView frame, Bytes& out) {
    int size = 0;
    ++_nonce[11];
    const auto plain = frame.subspan(_authenticated);
    EVP_EncryptInit_ex(_context, nullptr, nullptr, nullptr, _nonce);
    EVP_EncryptUpdate(_context, nullptr, &size, frame.data(), static_cast<int>(_authenticated));
    EVP_EncryptUpdate(_context, out.data(), &size, plain.data(), static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(_context, out.data() + plain.size(), &size);
    EVP_CIPHER_CTX_ctrl(_context, EVP_CTRL_GCM_GET_TAG, kTagSize, out.data() + plain.size());
  }
  /// What `encrypt` gave last, of that frame.
  void decrypt(ByteView frame, Bytes& sealed, Bytes& out) {
    int size = 0;
    const auto secret = frame.size() - _authenticated;
    EVP_DecryptInit_ex(_context, nullptr, nullptr, nullptr, _nonce);
    EVP_DecryptUpdate(_context, nullptr, &size, frame.data(), static_cast<int>(_authenticated));
    EVP_DecryptUpdate(_context, out.data(), &size, sealed.data(), static_cast<int>(secret));
    EVP_CIPHER_CTX_ctrl(_context, EVP_CTRL_GCM_SET_TAG, kTagSize, sealed.data() + secret);
    if (EVP_DecryptFinal_ex(_context, out.data() + secret, &size) != 1) std::abort();
  }

private:
  const std::size_t _authenticated;
  EVP_CIPHER_CTX* const _context = EVP_CIPHER_CTX_new();
  unsigned char _key[kKeySize]{};
  unsigned char _nonce[kNonceSize]{};
};

/// Processor time of this thread: others on the machine don't count.
double threadNs() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

template <class Frame>
double nsEach(std::size_t frames, const Frame& frame) {
  const auto begin = threadNs();
  for (std::size_t i = 0; i < frames; ++i) frame();
  return (threadNs() - begin) / static_cast<double>(frames);
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

Bytes frameOf(FrameCodec codec, std::size_t size) {
  Bytes frame(size);
  RAND_bytes(frame.data(), static_cast<int>(size));
  if (codec == FrameCodec::vp8) frame[0] &= 0xFE;  // a key frame
  constexpr std::uint8_t front[] = {0, 0, 0, 1, 0x65, 0x88, 0x84};
  if (codec == FrameCodec::h264) std::copy(std::begin(front), std::end(front), frame.begin());
  return frame;
}

/// One line, of one direction: they take turns.
template <class Cryptor, class Cipher>
void compare(const char* what, std::size_t size, const Cryptor& cryptor, const Cipher& bare) {
  const auto frames = std::min(mostFramesARound, std::max<std::size_t>(1, bytesARound / size));
  nsEach(frames, cryptor);
  nsEach(frames, bare);
  std::vector<double> ours(rounds);
  std::vector<double> theirs(rounds);
  std::vector<double> rates(rounds);
  const auto memory = bench::allocations() + cipherMemory;
  for (std::size_t round = 0; round < rounds; ++round) {
    theirs[round] = nsEach(frames, bare);
    ours[round] = nsEach(frames, cryptor);
    rates[round] = theirs[round] / ours[round];
  }
  const auto taken = bench::allocations() + cipherMemory - memory;
  std::printf(
      "%-14s %7zu bytes: cipher %7.0f ns, cryptor %7.0f ns, rate %.2f of it; "
      "%llu allocations\n",
      what, size, median(theirs), median(ours), median(rates),
      static_cast<unsigned long long>(taken));
}

void measure(const Codec& row, std::size_t size) {
  const auto keys = std::make_shared<KeyRing>(FrameCryptorKeyOptions{});
  const std::uint8_t key[] = {'k', 'e', 'y'};
  keys->setSharedKey(key, 0);
  FrameCipher sender(keys, row.codec);
  FrameCipher receiver(keys, row.codec);
  const auto frame = frameOf(row.codec, size);
  const auto clear = clearPart(row.codec, frame).value();
  Bare bare(clear.size - clear.authenticatedFrom);
  Bytes out(size + kOverhead);
  const std::string name = row.name;
  compare((name + " encrypt").c_str(), size, [&] { sender.encrypt(frame); },
          [&] { bare.encrypt(frame, out); });
  const auto sent = *sender.encrypt(frame).frame;
  const Bytes sealed(sent.begin(), sent.end());
  Bytes own(size + kOverhead);
  bare.encrypt(frame, own);
  if (receiver.decrypt(sealed).state != RTCFrameCryptorState::ok) std::abort();
  compare((name + " decrypt").c_str(), size, [&] { receiver.decrypt(sealed); },
          [&] { bare.decrypt(frame, own, out); });
}

}  // namespace
}  // namespace kestrova::e2ee

int main() {
  using namespace kestrova::e2ee;
  // Before the library is first used.
  CRYPTO_set_mem_functions(
      [](std::size_t size, const char*, int) {
        ++cipherMemory;
        return std::malloc(size);
      },
      [](void* memory, std::size_t size, const char*, int) {
        ++cipherMemory;
        return std::realloc(memory, size);
      },
      [](void* memory, const char*, int) { std::free(memory); });
  const auto begin = threadNs();
  KeyMaterial(Bytes{'k'}, Bytes{'s'});
  std::printf("a key is derived in %.0f ms\n", (threadNs() - begin) / 1e6);
  for (const auto& codec : codecs)
    for (const std::size_t size : {100, 1200, 5000, 20'000, 100'000})
      if (codec.codec != FrameCodec::opus || size < 5000) measure(codec, size);
}
