#include "Work.h"

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Task.h>

#include <cstdio>
#include <exception>
#include <utility>

namespace work {
namespace {

kestrova::Task<void> telling(kestrova::Task<void> task, std::string failed) try {
  co_await std::move(task);
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s: %s\n", failed.c_str(), error.what());
}

}  // namespace

void attempt(kestrova::Task<void> task, std::string failed) {
  kestrova::spawnOn(kestrova::MainQueue::shared(), telling(std::move(task), std::move(failed)));
}

bool Backlog::add(Piece piece) {
  Piece gone;  // let go of outside the lock
  const std::scoped_lock held(_lock);
  _waiting.push_back(std::move(piece));
  if (_waiting.size() <= _most) {
    _thread.executor().execute([this] { doNext(); });
    return false;
  }
  gone = std::move(_waiting.front());
  _waiting.pop_front();
  return true;
}

void Backlog::doNext() {
  Piece next;
  {
    const std::scoped_lock held(_lock);
    next = std::move(_waiting.front());
    _waiting.pop_front();
  }
  next();
}

}  // namespace work
