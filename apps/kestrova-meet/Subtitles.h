#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

namespace kestrova::meet {

/// What was said last, as it stands below a picture: a line for each piece, the speaker first.
class Subtitles {
public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t mostLines = 2;
  static constexpr std::chrono::seconds shownFor{6};

  void take(std::string speaker, std::string text, Clock::time_point now);
  /// Those that are still to be read, none longer than `columns`: of a longer one its end.
  std::vector<std::string> lines(std::size_t columns, Clock::time_point now);

private:
  struct Piece {
    std::string speaker;
    std::string text;
    Clock::time_point said;
  };
  std::deque<Piece> _pieces;
};

}  // namespace kestrova::meet
