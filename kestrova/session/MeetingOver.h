#pragma once

#include <kestrova/model/MeetingEnd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace kestrova {

/// The end of one meeting: it comes once, and is told when the goodbye, too, has been said.
/// Thread-safe.
class MeetingOver : public std::enable_shared_from_this<MeetingOver> {
public:
  using Reader = std::function<void(const MeetingEnd&)>;

  /// A goodbye begins; it is said, or given up, when the last copy goes.
  std::shared_ptr<void> goodbye();
  /// The first end counts.
  void come(MeetingEnd end);
  /// The end, once it has been told.
  std::optional<MeetingEnd> told() const;
  std::optional<MeetingEnd> wait(std::optional<std::chrono::milliseconds> atMost) const;
  /// Calls `reader` once with the end, on any thread; at once when it has been told.
  void whenTold(Reader reader);

private:
  void said();
  /// Tells the readers, where there is an end to tell; the lock is released for it.
  void tell(std::unique_lock<std::mutex> held);

  mutable std::mutex _lock;
  mutable std::condition_variable _changed;
  std::optional<MeetingEnd> _end;
  int _goodbyes = 0;
  bool _told = false;  // for good
  std::vector<Reader> _readers;
};

}  // namespace kestrova
