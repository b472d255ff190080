#pragma once

#include <kestrova/platform/Scheduler.h>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace kestrova {

/// Lets listeners see that a reconnection lasts: beats on the main queue, every 10 s, until it is
/// let go of there or has nothing more to tell.
class ReconnectHeartbeat : public std::enable_shared_from_this<ReconnectHeartbeat> {
public:
  /// Tells the listeners. \returns whether it goes on
  using Beat = std::function<bool()>;

  static constexpr std::chrono::seconds interval{10};

  /// On the main queue.
  static std::shared_ptr<ReconnectHeartbeat> begin(Beat beat);
  explicit ReconnectHeartbeat(Beat beat) : _beat(std::move(beat)) {}

private:
  void schedule();

  const Beat _beat;
  std::unique_ptr<Timer> _timer;
};

}  // namespace kestrova
