#include <kestrova/platform/Farewells.h>

#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace kestrova {

struct Farewells::State {
  std::mutex lock;
  std::condition_variable allSaid;
  int underWay = 0;
  void (*lastWords)() = nullptr;
  void (*afterwards)() = nullptr;
  bool isOver = false;
  const pid_t process = ::getpid();

  void said() {
    std::scoped_lock held(lock);
    if (--underWay == 0) allSaid.notify_all();
  }
};

/// Never destroyed: background threads may come to it while the process exits.
Farewells::State& Farewells::state() {
  static auto& instance = *new State;
  return instance;
}

std::shared_ptr<void> Farewells::begin() {
  auto& all = state();
  {
    std::scoped_lock held(all.lock);
    ++all.underWay;
  }
  return {&all, [](State* state) { state->said(); }};
}

bool Farewells::wait(std::chrono::milliseconds atMost) {
  auto& all = state();
  std::unique_lock held(all.lock);
  return all.allSaid.wait_for(held, atMost, [&] { return all.underWay == 0; });
}

void Farewells::guardExit(void (*lastWords)()) {
  auto& all = state();
  {
    std::scoped_lock held(all.lock);
    if (all.lastWords) return;
    all.lastWords = lastWords;
  }
  std::atexit(atExit);
}

void Farewells::afterwards(void (*work)()) {
  auto& all = state();
  {
    std::scoped_lock held(all.lock);
    if (all.afterwards) return;
    all.afterwards = work;
  }
  std::atexit(atExit);
}

/// Comes once for each of the two that registered it; the first time does it all. A fork of the
/// process that exits has none of the threads that it would wait for, and nothing to say.
void Farewells::atExit() {
  auto& all = state();
  if (::getpid() != all.process) return;
  void (*lastWords)() = nullptr;
  {
    std::scoped_lock held(all.lock);
    if (std::exchange(all.isOver, true)) return;
    lastWords = all.lastWords;
  }
  if (lastWords) lastWords();
  wait(patience);
  if (all.afterwards) all.afterwards();
}

}  // namespace kestrova
