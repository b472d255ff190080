#pragma once

#include <kestrova/platform/Work.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kestrova {

/// The road of messages to the main queue, of bounded length: while the application takes its time,
/// what has arrived waits; when too much waits, what comes then gives way, and the gap is told in
/// its place. For one thread at a time, but for `wait`'s end.
class PubSubDeliveries {
public:
  /// What may wait before something gives way, counted as it lies in memory; one frame more may.
  static constexpr std::size_t mostWaitingBytes = 32 * 1024 * 1024;

  using TellGap = std::function<void(std::uint64_t lost)>;

  bool hasRoom() const { return _waiting->load(std::memory_order_relaxed) < mostWaitingBytes; }
  /// Runs `work` on the main queue, after all that went before.
  /// \param stream within which a gap must be told in its place
  /// \param bytes what `work` holds
  void deliver(const std::string& stream, std::size_t bytes, Work work);
  /// Has it told on the main queue that `count` messages are lost; what is lost directly after them
  /// counts with them.
  void lose(const std::string& stream, std::uint64_t count, TellGap tell);

private:
  class Gap;
  std::shared_ptr<std::atomic<std::size_t>> _waiting =
      std::make_shared<std::atomic<std::size_t>>(0);
  std::map<std::string, std::shared_ptr<Gap>> _gaps;  // that nothing has followed yet
};

}  // namespace kestrova
