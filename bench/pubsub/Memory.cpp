#include "Memory.h"

#include <malloc.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace kestrova::bench {
namespace {

double megabytes(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(field + ':', 0) == 0) return std::stod(line.substr(field.size() + 1)) * 1.024e-3;
  return 0;
}

}  // namespace

PeakWatch::PeakWatch() {
  ::malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << '5';  // the peak begins here
  _before = megabytes("VmRSS");
}

double PeakWatch::grownMb() const {
  return megabytes("VmHWM") - _before;
}

void PeakWatch::settle() const {
  constexpr auto pause = std::chrono::milliseconds(500);
  double last = -1;
  for (int i = 0; i < 20 && megabytes("VmRSS") != last; ++i) {
    last = megabytes("VmRSS");
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace kestrova::bench
