#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace kestrova::test {

/// A network of this process's own, with nothing but a loopback, that can be taken away and
/// spoilt. What the process starts from then on is in it, too.
class NetworkLab {
public:
  /// Before the process has any other thread. \returns why it is not permitted, or nothing
  static std::string enter();
  /// From now on every packet is lost; nobody is told.
  static void cut();
  static void restore();
};

/// A road to this machine itself that is long and bad: what is sent to `farAddress` comes back to
/// `nearAddress`, late or not at all, with the addresses exchanged.
class Detour {
public:
  static constexpr const char* nearAddress = "10.77.0.1";
  static constexpr const char* farAddress = "10.77.0.2";

  /// \param lossPercent of all packets, each on its own
  Detour(std::chrono::milliseconds delay, int lossPercent);
  ~Detour();
  Detour(const Detour&) = delete;
  Detour& operator=(const Detour&) = delete;

  /// From now on the road carries so much, and what waits longer than a second is lost; 0 lifts it.
  void narrowTo(int kbps) { _kbps = kbps; }
  int carried() const { return _carried; }
  int lost() const { return _lost; }

private:
  void run(const std::stop_token& stop);

  const std::chrono::milliseconds _delay;
  const int _lossPercent;
  std::atomic<int> _kbps{0};
  int _tunnel = -1;
  std::atomic<int> _carried{0};
  std::atomic<int> _lost{0};
  std::jthread _thread;
};

}  // namespace kestrova::test
