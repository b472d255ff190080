#include "LineEditor.h"

#include <utility>

namespace kestrova::meet {
namespace {

constexpr char control(char letter) {
  return static_cast<char>(letter & 0x1F);
}
constexpr char escape = 0x1B, erase = 0x7F;

}  // namespace

std::optional<std::string> LineEditor::press(char key) {
  if (skipsSequence(key)) return std::nullopt;
  if (key == '\n' || key == '\r') return std::exchange(_text, {});
  if (key == erase || key == control('H'))
    eraseCharacter();
  else if (key == control('U'))
    _text.clear();
  else if (key == control('W'))
    eraseWord();
  else if (key == control('D'))
    _ended = _ended || _text.empty();
  else if (static_cast<unsigned char>(key) >= ' ' && _text.size() < mostBytes)
    _text += key;
  return std::nullopt;
}

/// An arrow key, for instance, sends ESC [ A.
bool LineEditor::skipsSequence(char key) {
  switch (_sequence) {
    case Sequence::none:
      if (key != escape) return false;
      _sequence = Sequence::begun;
      return true;
    case Sequence::begun:
      _sequence = key == '[' || key == 'O' ? Sequence::open : Sequence::none;
      return true;
    case Sequence::open:
      if (key >= '@' && key <= '~') _sequence = Sequence::none;
      return true;
  }
  return false;
}

void LineEditor::eraseCharacter() {
  while (!_text.empty()) {
    const auto last = static_cast<unsigned char>(_text.back());
    _text.pop_back();
    if ((last & 0xC0) != 0x80) break;  // a character's first byte
  }
}

void LineEditor::eraseWord() {
  while (_text.ends_with(' ')) _text.pop_back();
  while (!_text.empty() && !_text.ends_with(' ')) _text.pop_back();
}

}  // namespace kestrova::meet
