#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

namespace kestrova {

/// The stretch of time to which a step, a claim, an answer or a timer belongs: while the signalling
/// connection stood, or was away. Whoever finds it over when it wakes ends quietly, since what it
/// was about is gone on the other side, too.
///
/// A small value; copies are the same connection. Thread-safe.
class Connection {
public:
  bool isCurrent() const {
    const auto now = _now->load();
    return now == _number && now != over;
  }
  /// Whether it is current and stands: something may be asked of the service.
  bool stands() const { return isCurrent() && (_number & 1) == 1; }
  bool operator==(const Connection&) const = default;

private:
  friend class Connections;
  using Number = std::uint64_t;
  static constexpr Number over = ~Number(0);

  Connection(std::shared_ptr<const std::atomic<Number>> now, Number number)
      : _now(std::move(now)), _number(number) {}

  std::shared_ptr<const std::atomic<Number>> _now;
  Number _number;
};

/// Numbers the connections of one meeting: every drop and every return begins the next, and after
/// the meeting's end there is none. Thread-safe.
class Connections {
public:
  Connection current() const { return {_now, _now->load()}; }
  /// The server has greeted. Changes nothing while the connection stands already.
  void established() { advance(away); }
  /// Changes nothing while the connection is away already.
  void lost() { advance(standing); }
  /// The same, for somebody who learned it from a request of that connection.
  void lost(const Connection& connection) {
    auto number = connection._number;
    if (parity(number) == standing && number != Connection::over)
      _now->compare_exchange_strong(number, number + 1);
  }
  /// The meeting is being left: nothing begins any more, and what was asked of the service before
  /// still belongs to its connection.
  void beginEnd() { _isOver = true; }
  /// The meeting is left or ended: nothing is current any more, for good.
  void end() {
    beginEnd();
    _now->store(Connection::over);
  }
  bool isOver() const { return _isOver; }

private:
  using Number = Connection::Number;
  // It begins away, and the two take turns.
  static constexpr Number away = 0;
  static constexpr Number standing = 1;
  static Number parity(Number number) { return number & 1; }

  void advance(Number from) {
    auto number = _now->load();
    while (number != Connection::over && parity(number) == from)
      if (_now->compare_exchange_weak(number, number + 1)) return;
  }

  const std::shared_ptr<std::atomic<Number>> _now = std::make_shared<std::atomic<Number>>(0);
  std::atomic<bool> _isOver = false;
};

}  // namespace kestrova
