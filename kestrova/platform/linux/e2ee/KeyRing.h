#pragma once

#include <kestrova/platform/FrameCryptor.h>
#include <kestrova/platform/linux/e2ee/FrameKeys.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

namespace kestrova::e2ee {

/// The keys of a meeting. Cryptors look at a number for each frame, and take the key only when that
/// has changed. Thread-safe; no frame waits while keys are derived.
class KeyRing final : public RTCFrameCryptorKeyProvider {
public:
  explicit KeyRing(FrameCryptorKeyOptions options);

  bool setSharedKey(std::span<const std::uint8_t> key, int index) override;
  std::optional<Bytes> exportSharedKey(int index) const override;
  std::optional<Bytes> ratchetSharedKey(int index) override;

  const FrameCryptorKeyOptions& options() const { return _options; }
  std::size_t size() const { return _slots.size(); }
  /// The index of the key that was set last; with which frames are encrypted.
  int currentIndex() const { return _current; }
  /// Grows with every change of that key; 0 while there is none. `index` lies within the ring.
  std::uint32_t version(std::size_t index) const { return _slots[index].version; }

  struct Key {
    FrameKey bytes{};
    std::uint32_t version = 0;
  };
  /// The key, or the one that many steps of the ratchet on; nothing where there is none, or where
  /// the step is beyond the window.
  std::optional<Key> key(std::size_t index, std::size_t steps = 0) const;
  /// Goes on to the key that many steps on, unless the key is another than of that version by now.
  /// Derives as many keys as it takes steps.
  void advance(std::size_t index, std::uint32_t version, std::size_t steps);

private:
  struct Slot {
    std::atomic<std::uint32_t> version{0};
    // Under _lock: the key, and as many behind it as the window has.
    std::deque<KeyMaterial> keys;
  };
  bool has(int index) const { return index >= 0 && static_cast<std::size_t>(index) < size(); }
  enum class Ratchet { done, overtaken, failed };
  Ratchet ratchet(Slot& slot, std::uint32_t version, std::size_t steps);
  std::deque<KeyMaterial> derived(Bytes material, std::size_t count) const;

  const FrameCryptorKeyOptions _options;
  const std::size_t _window;
  std::mutex _changeLock;  // held for a whole change: the last one asked for is the one that stays
  mutable std::mutex _lock;
  std::vector<Slot> _slots;
  std::atomic<int> _current{0};
};

}  // namespace kestrova::e2ee
