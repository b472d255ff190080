#pragma once

#include <kestrova/model/MeetingEnd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// The end of one meeting. It is decided once, and told when the listeners have heard of it and
/// every goodbye has been said. Thread-safe.
class MeetingOver : public std::enable_shared_from_this<MeetingOver> {
public:
  using Reader = std::function<void(const MeetingEnd&)>;

  // ---- For the meeting
  /// A goodbye begins; it is said, or given up, when the last copy goes.
  std::shared_ptr<void> goodbye();
  /// From now on it is known how the meeting ends; the first decision counts. A failure gets the
  /// error and the cause that were noted last.
  void decide(MeetingEnd end);
  /// The listeners have heard what was decided, or there are none any more.
  void heard();
  /// What went wrong, should the meeting fail.
  void noteError(KestrovaError error);
  void noteCause(std::string cause);
  /// An adopted loop has work until the end is told, or until it is released.
  void keepLoopRunning();
  void releaseLoop();

  // ---- For the application
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
  std::shared_ptr<void> _unheard;  // a goodbye until the listeners have heard
  std::shared_ptr<void> _loopWork;
  std::optional<KestrovaError> _error;
  std::string _cause;
};

}  // namespace kestrova
