#include <kestrova/tracing/ConsoleLogger.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace kestrova {
namespace {

constexpr std::array<std::string_view, 4> typeNames = {"debug", "info", "error", "fault"};

constexpr bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

/// What somebody else chose, as a name, must neither pass for a line of its own nor steer a
/// terminal.
void appendPrintable(std::string& text, std::string_view line) {
  constexpr std::string_view digits = "0123456789abcdef";
  for (std::size_t at = 0; at < line.size(); ++at) {
    const auto c = line[at];
    // The second block of controls is C2 80 to C2 9F in UTF-8.
    const bool isSecond = c == '\xC2' && at + 1 < line.size() && (line[at + 1] & 0xE0) == 0x80;
    if (!isControl(c) && !isSecond) {
      text += c;
      continue;
    }
    const auto code = static_cast<unsigned char>(isSecond ? line[++at] : c);
    text += "\\x";
    text += digits[code >> 4];
    text += digits[code & 0xF];
  }
}

// The stream is locked per call, so one call writes the whole line.
void writeToStandardError(LogType type, std::string_view line) {
  std::string text = "[";
  text += ConsoleLogger::subsystem();
  text += ':';
  text += ConsoleLogger::category;
  text += "] ";
  text += typeNames.at(static_cast<std::size_t>(type));
  text += ": ";
  appendPrintable(text, line);
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), stderr);
}

/// The application's handler. Shared, so that it can be replaced while it runs.
struct HandlerSlot {
  std::mutex lock;
  std::shared_ptr<const LogHandler> handler;
  std::atomic<bool> isSet{false};
};

HandlerSlot& handlerSlot() {
  static auto& slot = *new HandlerSlot;
  return slot;
}

std::shared_ptr<const LogHandler> currentHandler() {
  auto& slot = handlerSlot();
  if (!slot.isSet) return nullptr;
  std::scoped_lock held(slot.lock);
  return slot.handler;
}

/// Set while this thread runs the handler: lines that it brings about must not call it again.
thread_local bool isHandling = false;

}  // namespace

std::string_view ConsoleLogger::subsystem() {
  const std::string_view name = program_invocation_short_name ? program_invocation_short_name : "";
  return name.empty() ? defaultSubsystem : name;
}

ConsoleLogger::ConsoleLogger() = default;

ConsoleLogger::ConsoleLogger(LineSink sink) : _sink(std::move(sink)) {}

void ConsoleLogger::log(LogType type, std::string_view line) const {
  if (_sink)
    _sink(type, line);
  else
    writeToStandardError(type, line);
}

bool ConsoleLogger::hasHandler() const {
  return !_sink && handlerSlot().isSet && !isHandling;
}

bool ConsoleLogger::hand(const LogLine& line) const {
  if (_sink || isHandling) return false;
  const auto handler = currentHandler();
  if (!handler) return false;
  isHandling = true;
  bool isTaken = true;
  try {
    (*handler)(line);
  } catch (...) {
    isTaken = false;
  }
  isHandling = false;
  return isTaken;
}

void ConsoleLogger::setHandler(LogHandler handler) {
  auto fresh = handler ? std::make_shared<const LogHandler>(std::move(handler)) : nullptr;
  auto& slot = handlerSlot();
  std::scoped_lock held(slot.lock);
  slot.isSet = fresh != nullptr;
  slot.handler.swap(fresh);
}

}  // namespace kestrova
