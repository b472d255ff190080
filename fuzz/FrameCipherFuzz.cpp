// An encrypted frame from anybody, and an encoder's frame. The first byte says of which codec, and
// how the rest is cut. Whatever it is, it is opened or refused; what was encrypted opens to itself,
// and nothing that looks like the start of a unit is in it.
#include <kestrova/platform/linux/e2ee/FrameCipher.h>

#include "Require.h"
#include <memory>

using namespace kestrova;
using namespace kestrova::e2ee;
using fuzz::require;

namespace {

constexpr FrameCodec codecs[] = {FrameCodec::opus, FrameCodec::vp8, FrameCodec::vp9,
                                 FrameCodec::h264, FrameCodec::unknown};

/// One key for all inputs: deriving it takes as long as thousands of them.
const std::shared_ptr<KeyRing>& keys() {
  static const auto& ring = *[] {
    auto* made = new std::shared_ptr<KeyRing>(std::make_shared<KeyRing>(
        FrameCryptorKeyOptions{.ratchetSalt = {'s'}, .uncryptedMagicBytes = {'M', 'A', 'R', 'K'}}));
    const std::uint8_t key[] = {'f', 'u', 'z', 'z'};
    (*made)->setSharedKey(key, 0);
    return made;
  }();
  return ring;
}

bool same(ByteView a, ByteView b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

void checkOpened(FrameCodec codec, ByteView frame) {
  FrameCipher cipher(keys(), codec);
  const auto result = cipher.decrypt(frame);
  require(!result.frame || result.frame->size() <= frame.size(), "nothing is added");
  const bool good = !result.state || *result.state == RTCFrameCryptorState::ok;
  require(!result.frame || good, "what failed goes no further");
}

void checkSealed(FrameCodec codec, ByteView frame) {
  FrameCipher sender(keys(), codec);
  FrameCipher receiver(keys(), codec);
  const auto sealed = sender.encrypt(frame);
  if (!sealed.frame || !sealed.state) return;
  const auto part = clearPart(codec, frame);
  require(part && same(sealed.frame->first(part->size), frame.first(part->size)),
          "the front stays clear");
  require(sealed.frame->size() >= frame.size() + kOverhead, "it is whole");
  if (codec == FrameCodec::h264) {
    const auto& bytes = *sealed.frame;
    for (auto at = part->size; at < bytes.size(); ++at)
      require(at < part->authenticatedFrom + 2 || bytes[at - 2] != 0 || bytes[at - 1] != 0 ||
                  bytes[at] > 2,
              "no unit begins within");
  }
  const auto opened = receiver.decrypt(*sealed.frame);
  require(opened.frame && same(*opened.frame, frame), "it opens to itself");
}

void checkEmulation(ByteView before, ByteView body) {
  const Emulation emulation(before);
  Bytes sent(body.size() + emulation.added(body));
  emulation.escape(body, sent.data());
  Bytes back(sent.size());
  back.resize(emulation.unescape(sent, back.data()));
  require(same(back, body), "escapes come out again");
  Bytes any(body.size());
  require(emulation.unescape(body, any.data()) <= body.size(), "nothing grows");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto codec = codecs[data[0] % std::size(codecs)];
  // Memory of just this size, so that a sanitizer sees a step beyond it.
  const auto copy = std::make_unique<std::uint8_t[]>(size - 1);
  std::copy(data + 1, data + size, copy.get());
  const ByteView frame(copy.get(), size - 1);
  checkOpened(codec, frame);
  checkSealed(codec, frame);
  const auto split = std::min<std::size_t>(data[0] / std::size(codecs), frame.size());
  checkEmulation(frame.first(split), frame.subspan(split));
  return 0;
}
