#include "Process.h"

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>

namespace kestrova::bench {

double cpuSeconds() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

Footprint footprint() {
  ::malloc_trim(0);  // what is free already is not held
  Footprint result;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    const auto colon = line.find(':');
    if (line.rfind("VmRSS:", 0) == 0) result.residentMb = std::stod(line.substr(colon + 1)) / 1024;
    if (line.rfind("Threads:", 0) == 0) result.threads = std::stoi(line.substr(colon + 1));
  }
  return result;
}

double machineLoad() {
  double load = 0;
  return ::getloadavg(&load, 1) == 1 ? load : 0;
}

Spread spreadOf(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const auto middle = values.size() / 2;
  const double median =
      values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {values.front(), median, values.back()};
}

}  // namespace kestrova::bench
