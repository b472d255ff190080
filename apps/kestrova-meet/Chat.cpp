#include "Chat.h"

#include <kestrova/platform/Queue.h>

#include <unistd.h>

#include <utility>

namespace kestrova::meet {

Chat::Chat(boost::asio::io_context& loop, Meeting& meeting, MeetingWatcher& watcher,
           Characters& characters, Report& report, const Options& options,
           std::function<void()> finished)
    : _report(report),
      _finished(std::move(finished)),
      _topic(std::make_shared<ChatTopic>(loop, meeting, watcher)),
      _commands(meeting, watcher, characters, *_topic, options.token, options.keyFile) {
  // A line is typed below what is shown only where both are the terminal.
  if (!options.json && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)) {
    _keyboard = Keyboard::open(loop, [this](char key) { press(key); });
    _isTyped = true;
    if (!_keyboard) return;  // in the background nobody types
    watcher.note("help", ChatCommands::help());
    _report.typed("");
    return;
  }
  _input.emplace(loop);
  readLine();
}

// ---- Input -------------------------------------------------------------------------------------

void Chat::press(char key) {
  if (_inputOver) return;
  if (auto line = _editor.press(key)) take(std::move(*line));
  _report.typed(_editor.text());
  if (_editor.ended()) endInput();
}

/// The next line of a script is read when this one is done.
void Chat::readLine() {
  _input->next([this](std::optional<std::string> line) {
    if (!line) return endInput();
    if (line->empty()) return readLine();
    take(std::move(*line));
  });
}

void Chat::take(std::string line) {
  if (line.empty()) return;
  _lines.push_back(std::move(line));
  work();
}

void Chat::endInput() {
  _inputOver = true;
  work();
}

// ---- Work --------------------------------------------------------------------------------------

void Chat::joined() {
  spawnOn(MainQueue::shared(), listen(++_joins));
}

Task<void> Chat::listen(int join) {
  auto listening = _topic->listen();
  co_await std::move(listening);
  if (join != _joins) co_return;
  _ready = true;
  work();
}

void Chat::work() {
  if (_ready && !std::exchange(_working, true)) spawnOn(MainQueue::shared(), workOff());
}

Task<void> Chat::workOff() {
  while (_ready && !_lines.empty()) {
    auto running = _commands.run(_lines.front());
    const auto outcome = co_await std::move(running);
    if (outcome == ChatCommands::Outcome::later) {
      _ready = false;
      break;
    }
    if (outcome == ChatCommands::Outcome::failed && !_isTyped) ++_failures;
    _lines.pop_front();
    if (_input && !_inputOver) readLine();
  }
  _working = false;
  if (_ready && _inputOver && _lines.empty()) _finished();
}

}  // namespace kestrova::meet
