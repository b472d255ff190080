#include <kestrova/media/BaseKeyProvider.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Values.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <iterator>

namespace kestrova {
namespace {

constexpr int sharedKeyIndex = 0;

/// Unicode's white space and line ends, as UTF-8.
constexpr std::string_view whiteSpaces[] = {
    " ",      "\t",     "\n",     "\v",     "\f",     "\r",     "\u0085", "\u00A0", "\u1680",
    "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005", "\u2006", "\u2007", "\u2008",
    "\u2009", "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};

std::string_view trimmed(std::string_view text) {
  for (;;) {
    const auto* const front =
        std::find_if(std::begin(whiteSpaces), std::end(whiteSpaces),
                     [&](std::string_view space) { return text.starts_with(space); });
    if (front == std::end(whiteSpaces)) break;
    text.remove_prefix(front->size());
  }
  for (;;) {
    const auto* const back =
        std::find_if(std::begin(whiteSpaces), std::end(whiteSpaces),
                     [&](std::string_view space) { return text.ends_with(space); });
    if (back == std::end(whiteSpaces)) break;
    text.remove_suffix(back->size());
  }
  return text;
}

std::shared_ptr<RTCFrameCryptorKeyProvider> platformKeyProvider(const KeyProviderOptions& options) {
  const auto cryptors = Platform::current()->frameCryptors;
  if (!cryptors) return nullptr;
  return cryptors->makeKeyProvider(
      {.ratchetSalt = options.ratchetSalt,
       .ratchetWindowSize = options.ratchetWindowSize,
       .sharedKeyMode = options.sharedKey,
       .uncryptedMagicBytes = options.uncryptedMagicBytes,
       .failureTolerance = options.failureTolerance,
       .keyRingSize = options.keyRingSize,
       .discardFrameWhenCryptorNotReady = options.discardFrameWhenCryptorNotReady});
}

}  // namespace

struct BaseKeyProvider::State {
  explicit State(bool discardFrameWhenCryptorNotReady)
      : options{.discardFrameWhenCryptorNotReady = discardFrameWhenCryptorNotReady},
        keyProvider(platformKeyProvider(options)) {}

  const KeyProviderOptions options;
  const std::shared_ptr<RTCFrameCryptorKeyProvider> keyProvider;
  std::atomic<bool> isSharedKey{false};
};

BaseKeyProvider::BaseKeyProvider(bool discardFrameWhenCryptorNotReady)
    : _state(std::make_unique<State>(discardFrameWhenCryptorNotReady)) {}

BaseKeyProvider::~BaseKeyProvider() = default;

const KeyProviderOptions& BaseKeyProvider::options() const {
  return _state->options;
}

bool BaseKeyProvider::isSharedKey() const {
  return _state->isSharedKey;
}

const std::shared_ptr<RTCFrameCryptorKeyProvider>& BaseKeyProvider::keyProvider() const {
  return _state->keyProvider;
}

void BaseKeyProvider::setSharedKey(std::string_view key) {
  key = trimmed(key);
  if (key.empty() || !_state->keyProvider) throw RoomClientFailure(RoomClientError::sharedKeyIssue);
  if (!isUtf8(key)) throw RoomClientFailure(RoomClientError::keyEncodingFailed);
  bool isSet = false;
  try {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(key.data());
    isSet = _state->keyProvider->setSharedKey({bytes, key.size()}, sharedKeyIndex);
  } catch (const std::exception&) {
  }
  if (!isSet) throw RoomClientFailure(RoomClientError::sharedKeyIssue);
  _state->isSharedKey = true;
}

std::optional<std::vector<std::uint8_t>> BaseKeyProvider::exportSharedKey() const {
  return _state->keyProvider ? _state->keyProvider->exportSharedKey(sharedKeyIndex) : std::nullopt;
}

std::optional<std::vector<std::uint8_t>> BaseKeyProvider::ratchetSharedKey() {
  return _state->keyProvider ? _state->keyProvider->ratchetSharedKey(sharedKeyIndex) : std::nullopt;
}

}  // namespace kestrova
