#include "TopicEar.h"

#include <algorithm>

namespace kestrova::test {

std::string outcome(Task<void> task) {
  auto valued = [](Task<void> inner) -> Task<std::optional<std::string>> {
    co_await std::move(inner);
    co_return "ok";
  };
  return outcome(valued(std::move(task)));
}

std::string outcome(Task<std::optional<std::string>> task) {
  try {
    return asFuture(std::move(task)).get().value_or("nothing");
  } catch (const std::exception& error) {
    return error.what();
  }
}

void TopicEar::note(const std::string& line) {
  {
    std::scoped_lock held(_lock);
    _lines.push_back(line);
    _changed.notify_all();
  }
  if (onLine) onLine(line);
}

bool TopicEar::hears(const std::string& line) const {
  std::unique_lock held(_lock);
  return _changed.wait_for(held, Attendee::patience, [&] {
    return std::find(_lines.begin(), _lines.end(), line) != _lines.end();
  });
}

std::vector<std::string> TopicEar::lines() const {
  std::scoped_lock held(_lock);
  return _lines;
}

int TopicEar::count(const std::string& line) const {
  std::scoped_lock held(_lock);
  return static_cast<int>(std::count(_lines.begin(), _lines.end(), line));
}

}  // namespace kestrova::test
