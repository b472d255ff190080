#pragma once

#include <chrono>
#include <memory>

namespace kestrova {

/// The goodbyes that are under way in this process. Services count somebody who goes without one as
/// lost, and the others see a ghost until they do: a `main` that returns waits for these first.
///
/// Thread-safe, and usable until the process ends.
class Farewells {
public:
  /// How long the process's exit is held up at most.
  static constexpr std::chrono::milliseconds patience{500};

  /// A goodbye has begun; it is said, or given up, when the last copy goes.
  static std::shared_ptr<void> begin();
  /// \returns whether nothing is under way any more
  static bool wait(std::chrono::milliseconds atMost);

  /// From now on the process's exit runs `lastWords` and then waits for the goodbyes. What was
  /// registered with the process before, as the engine's own cleaning up, comes after it. Further
  /// calls do nothing.
  static void guardExit(void (*lastWords)());
  /// The exit runs `work` once, when the goodbyes have been said. Further calls do nothing.
  static void afterwards(void (*work)());

private:
  struct State;
  static State& state();
  static void atExit();
};

}  // namespace kestrova
