#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova::test {

/// Lines in the order in which they were written. Thread-safe.
class Log {
public:
  void add(std::string line);
  /// Waits until `count` lines begin with `start`; false after 10 seconds.
  bool waitFor(const std::string& start, std::size_t count = 1);
  std::vector<std::string> lines() const;
  std::size_t count(const std::string& start) const;

private:
  std::size_t countLocked(const std::string& start) const;
  mutable std::mutex _lock;
  std::condition_variable _changed;
  std::vector<std::string> _lines;
};

}  // namespace kestrova::test
