#pragma once

#include <kestrova/platform/TaskFwd.h>

#include <boost/asio/thread_pool.hpp>

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

namespace work {

/// Starts `task` on the main queue, in the order of asking, and says on stderr what came in its
/// way. \param failed stands before that
void attempt(kestrova::Task<void> task, std::string failed);

/// A thread that does one piece of work after the other. What waits is limited: for a new piece
/// the oldest goes, since the newest is what somebody still waits for. Thread-safe.
class Backlog {
public:
  using Piece = std::function<void()>;

  /// \param most how many pieces may wait beside the one that is being done
  explicit Backlog(std::size_t most) : _most(most) {}

  /// \param piece may take its time; must not throw. \returns whether another one went for it
  bool add(Piece piece);

private:
  void doNext();

  const std::size_t _most;
  std::mutex _lock;
  std::deque<Piece> _waiting;
  // The last: its end waits for the piece that is being done, and forgets the others.
  boost::asio::thread_pool _thread{1};
};

}  // namespace work
