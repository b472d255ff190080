#pragma once

#include <kestrova/tracing/LogHandler.h>

#include <functional>
#include <string_view>

namespace kestrova {

enum class LogType { debug, info, error, fault };

/// Writes lines where a person reads them. Any thread may call; a line is never torn.
class ConsoleLogger {
public:
  using LineSink = std::function<void(LogType type, std::string_view line)>;

  /// The subsystem of a process without a name.
  static constexpr std::string_view defaultSubsystem = "com.kestrova.ios";
  static constexpr std::string_view category = "SDK";

  /// The program's own name.
  static std::string_view subsystem();

  /// To the standard error stream, as "[subsystem:category] type: line". Control characters are
  /// written as "\x1b".
  ConsoleLogger();
  explicit ConsoleLogger(LineSink sink);

  void log(LogType type, std::string_view line) const;
  /// Offers the line to the application's handler. A logger with a sink of its own offers nothing.
  /// \returns whether the handler took it; if not, it is still to be written
  bool hand(const LogLine& line) const;
  /// Whether `hand` has somebody to turn to.
  bool hasHandler() const;

  /// For the whole process; nullptr takes the handler away.
  static void setHandler(LogHandler handler);

private:
  LineSink _sink;  // none: the standard error stream
};

}  // namespace kestrova
