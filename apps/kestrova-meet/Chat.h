#pragma once

#include <boost/asio/io_context.hpp>

#include "ChatCommands.h"
#include "ChatTopic.h"
#include "Keyboard.h"
#include "LineEditor.h"
#include "LineInput.h"
#include "Options.h"
#include "Report.h"
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova::meet {

/// Talks in the meeting: takes lines from the terminal or from standard input, one after the other
/// and each when the one before is done, and shows what is said. Main queue only.
class Chat {
public:
  /// \param meeting \param watcher \param characters \param report must outlive the chat
  /// \param finished called when there is no more input and all of it is done
  Chat(boost::asio::io_context& loop, Meeting& meeting, MeetingWatcher& watcher,
       Characters& characters, Report& report, const Options& options,
       std::function<void()> finished);

  /// The meeting was joined, or joined again after a lost connection.
  void joined();
  /// The connection was lost: what is typed waits for the next join.
  void away() { _ready = false; }
  /// Gives the terminal back.
  void release() { _keyboard.reset(); }
  /// How many lines of a script were not done.
  int failures() const { return _failures; }
  const ChatTopic& topic() const { return *_topic; }

private:
  void press(char key);
  void readLine();
  void take(std::string line);
  void endInput();
  void work();
  Task<void> listen(int join);
  Task<void> workOff();

  Report& _report;
  const std::function<void()> _finished;
  const std::shared_ptr<ChatTopic> _topic;
  ChatCommands _commands;
  std::unique_ptr<Keyboard> _keyboard;
  LineEditor _editor;
  std::optional<LineInput> _input;
  std::deque<std::string> _lines;
  int _joins = 0;
  bool _ready = false;  ///< joined, and told what was said before
  bool _working = false;
  bool _inputOver = false;
  bool _isTyped = false;  ///< on the terminal, by somebody who sees what fails
  int _failures = 0;
};

}  // namespace kestrova::meet
