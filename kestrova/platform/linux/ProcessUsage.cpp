#include <kestrova/platform/linux/ProcessUsage.h>

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <mutex>

namespace kestrova {
namespace {

using Seconds = std::chrono::duration<double>;
using Clock = std::chrono::steady_clock;

constexpr Seconds shortestLook{0.1};

Seconds secondsOf(const timeval& time) {
  return Seconds(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6);
}

/// What all threads have used so far, the ended ones included.
Seconds processorTime() {
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) != 0) return Seconds(0);
  return secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
}

double residentMegabytes() {
  long total = 0;
  long resident = 0;
  if (!(std::ifstream("/proc/self/statm") >> total >> resident)) return 0;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576;
}

struct LastLook {
  std::mutex lock;
  Clock::time_point at = Clock::now();
  Seconds used = processorTime();
  int percent = 0;
};
// Made as the library is loaded.
auto& lastLook = *new LastLook;

}  // namespace

ProcessUsage processUsage() {
  std::scoped_lock held(lastLook.lock);
  const auto now = Clock::now();
  if (const Seconds passed = now - lastLook.at; passed >= shortestLook) {
    const auto used = processorTime();
    lastLook.percent = static_cast<int>((used - lastLook.used) / passed * 100);
    lastLook.used = used;
    lastLook.at = now;
  }
  return {.cpuPercent = lastLook.percent, .memoryMegabytes = residentMegabytes()};
}

}  // namespace kestrova
