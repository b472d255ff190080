#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/SocketIO.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kestrova {

/// The acknowledgements that are still awaited. Each handler is called exactly once, on `queue`:
/// with what the server sent, or with a marker. Thread-safe.
class SocketAcks : public std::enable_shared_from_this<SocketAcks> {
public:
  using Handler = SocketIOClient::AckHandler;

  SocketAcks(std::shared_ptr<Queue> queue, std::shared_ptr<Scheduler> scheduler);

  /// Gives the number to send. Numbers are never used twice, whatever becomes of the connection.
  /// \param connection the number of the connection that is to carry the question; rises from one
  /// to the next. One that has ended already gives the handler the disconnect marker.
  std::uint64_t add(std::uint64_t connection, std::chrono::milliseconds timeout, Handler handler);
  /// A number that nobody waits for is ignored.
  void resolve(std::uint64_t id, SocketItems items);
  /// Gives the disconnect marker to all that were to come by this connection or an older one, in
  /// the order in which they were added.
  void end(std::uint64_t connection);

private:
  using Time = Scheduler::Clock::time_point;
  struct Entry {
    Handler handler;
    Time deadline;
    std::uint64_t connection = 0;
  };

  void arm(Time deadline);
  void expire();
  void raise(Handler handler, const char* marker);

  const std::shared_ptr<Queue> _queue;
  const std::shared_ptr<Scheduler> _scheduler;

  std::mutex _lock;
  std::unordered_map<std::uint64_t, Entry> _entries;
  std::set<std::pair<Time, std::uint64_t>> _deadlines;
  /// One timer serves all. It is left as it is when its entry is answered, since the next one is
  /// nearly always due later: an answered request costs no timer work.
  std::unique_ptr<Timer> _timer;
  Time _armedFor = Time::max();
  std::uint64_t _next = 0;
  std::uint64_t _ended = 0;
};

}  // namespace kestrova
