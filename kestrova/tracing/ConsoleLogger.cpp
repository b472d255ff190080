#include <kestrova/tracing/ConsoleLogger.h>

#include <array>
#include <cstdio>
#include <string>
#include <utility>

namespace kestrova {
namespace {

constexpr std::array<std::string_view, 4> typeNames = {"debug", "info", "error", "fault"};

// The stream is locked per call, so one call writes the whole line.
void writeToStandardError(LogType type, std::string_view line) {
  std::string text = "[";
  text += ConsoleLogger::subsystem;
  text += ':';
  text += ConsoleLogger::category;
  text += "] ";
  text += typeNames.at(static_cast<std::size_t>(type));
  text += ": ";
  text += line;
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace

ConsoleLogger::ConsoleLogger() : ConsoleLogger(writeToStandardError) {}

ConsoleLogger::ConsoleLogger(LineSink sink) : _sink(std::move(sink)) {}

void ConsoleLogger::log(LogType type, std::string_view line) const {
  _sink(type, line);
}

}  // namespace kestrova
