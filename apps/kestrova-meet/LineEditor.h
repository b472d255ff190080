#pragma once

#include <optional>
#include <string>

namespace kestrova::meet {

/// A line as it is typed, from single keys: Backspace, Ctrl-U (all), Ctrl-W (a word), Enter, and
/// Ctrl-D on an empty line, which ends it all. Other control keys, and those that send escape
/// sequences, do nothing.
class LineEditor {
public:
  /// More than anybody types.
  static constexpr std::size_t mostBytes = 64 * 1024;

  /// \returns the line when the key completed it
  std::optional<std::string> press(char key);
  bool ended() const { return _ended; }
  const std::string& text() const { return _text; }

private:
  bool skipsSequence(char key);
  void eraseCharacter();
  void eraseWord();

  std::string _text;
  bool _ended = false;
  enum class Sequence { none, begun, open } _sequence = Sequence::none;
};

}  // namespace kestrova::meet
