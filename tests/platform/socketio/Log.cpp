#include "Log.h"

#include <algorithm>
#include <chrono>

namespace kestrova::test {
namespace {

constexpr auto longest = std::chrono::seconds(10);

}  // namespace

void Log::add(std::string line) {
  std::scoped_lock held(_lock);
  _lines.push_back(std::move(line));
  _changed.notify_all();
}

std::size_t Log::countLocked(const std::string& start) const {
  return static_cast<std::size_t>(std::count_if(
      _lines.begin(), _lines.end(), [&](const auto& line) { return line.starts_with(start); }));
}

std::size_t Log::count(const std::string& start) const {
  std::scoped_lock held(_lock);
  return countLocked(start);
}

bool Log::waitFor(const std::string& start, std::size_t count) {
  std::unique_lock held(_lock);
  return _changed.wait_for(held, longest, [&] { return countLocked(start) >= count; });
}

std::vector<std::string> Log::lines() const {
  std::scoped_lock held(_lock);
  return _lines;
}

}  // namespace kestrova::test
