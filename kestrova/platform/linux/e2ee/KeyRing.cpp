#include <kestrova/platform/linux/e2ee/KeyRing.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kestrova::e2ee {
namespace {

/// The index is a byte of each frame.
constexpr std::int32_t kLargestRing = 256;
/// Every step of it is derived beforehand, and tried with each frame that doesn't open.
constexpr std::int32_t kLargestWindow = 32;

}  // namespace

KeyRing::KeyRing(FrameCryptorKeyOptions options)
    : _options(std::move(options)),
      _window(static_cast<std::size_t>(std::clamp(_options.ratchetWindowSize, 0, kLargestWindow))),
      _slots(static_cast<std::size_t>(std::clamp(_options.keyRingSize, 1, kLargestRing))) {}

/// A key and those behind it; none when the cipher library fails.
std::deque<KeyMaterial> KeyRing::derived(Bytes material, std::size_t count) const {
  std::deque<KeyMaterial> keys;
  try {
    keys.emplace_back(std::move(material), _options.ratchetSalt);
    while (keys.size() < count) keys.push_back(keys.back().next(_options.ratchetSalt));
  } catch (const std::runtime_error&) {
    keys.clear();
  }
  return keys;
}

bool KeyRing::setSharedKey(std::span<const std::uint8_t> key, int index) {
  if (!has(index) || key.empty()) return false;
  std::scoped_lock changing(_changeLock);
  auto keys = derived(Bytes(key.begin(), key.end()), 1 + _window);
  if (keys.empty()) return false;
  auto& slot = _slots[static_cast<std::size_t>(index)];
  std::scoped_lock held(_lock);
  slot.keys.swap(keys);
  ++slot.version;
  _current = index;
  return true;
}

std::optional<Bytes> KeyRing::exportSharedKey(int index) const {
  if (!has(index)) return std::nullopt;
  std::scoped_lock held(_lock);
  const auto& keys = _slots[static_cast<std::size_t>(index)].keys;
  if (keys.empty()) return std::nullopt;
  return keys.front().material;
}

std::optional<Bytes> KeyRing::ratchetSharedKey(int index) {
  if (!has(index)) return std::nullopt;
  auto& slot = _slots[static_cast<std::size_t>(index)];
  std::scoped_lock changing(_changeLock);
  for (;;) {
    const std::uint32_t version = slot.version;
    if (version == 0) return std::nullopt;
    const auto outcome = ratchet(slot, version, 1);
    if (outcome == Ratchet::done) return exportSharedKey(index);
    if (outcome == Ratchet::failed) return std::nullopt;
    // A frame has led on to a later key while the next one was derived.
  }
}

void KeyRing::advance(std::size_t index, std::uint32_t version, std::size_t steps) {
  ratchet(_slots[index], version, steps);
}

KeyRing::Ratchet KeyRing::ratchet(Slot& slot, std::uint32_t version, std::size_t steps) {
  Bytes last;
  {
    std::scoped_lock held(_lock);
    if (slot.version != version) return Ratchet::overtaken;
    const auto& next = slot.keys.back().nextMaterial;
    last.assign(next.begin(), next.end());
  }
  auto more = derived(std::move(last), steps);
  if (more.empty()) return Ratchet::failed;
  std::scoped_lock held(_lock);
  if (slot.version != version) return Ratchet::overtaken;
  for (auto& key : more) {
    slot.keys.push_back(std::move(key));
    slot.keys.pop_front();
  }
  ++slot.version;
  return Ratchet::done;
}

std::optional<KeyRing::Key> KeyRing::key(std::size_t index, std::size_t steps) const {
  const auto& slot = _slots[index];
  std::scoped_lock held(_lock);
  if (steps >= slot.keys.size()) return std::nullopt;
  return Key{slot.keys[steps].frameKey, slot.version};
}

}  // namespace kestrova::e2ee
