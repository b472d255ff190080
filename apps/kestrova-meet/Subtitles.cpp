#include "Subtitles.h"

#include "Text.h"
#include <utility>

namespace kestrova::meet {
namespace {

constexpr std::size_t mostOfName = 20;

}  // namespace

void Subtitles::take(std::string speaker, std::string text, Clock::time_point now) {
  if (text.empty()) return;
  _pieces.push_back({std::move(speaker), std::move(text), now});
  if (_pieces.size() > mostLines) _pieces.pop_front();
}

std::vector<std::string> Subtitles::lines(std::size_t columns, Clock::time_point now) {
  while (!_pieces.empty() && now - _pieces.front().said >= shownFor) _pieces.pop_front();
  std::vector<std::string> lines;
  for (const auto& piece : _pieces) {
    const auto name = shortened(printable(piece.speaker), mostOfName) + ": ";
    const auto taken = columnsOf(name);
    lines.push_back(name + fittedEnd(printable(piece.text), columns > taken ? columns - taken : 0));
  }
  return lines;
}

}  // namespace kestrova::meet
