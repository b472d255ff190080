#pragma once

#include <functional>
#include <string_view>

namespace kestrova {

enum class LogType { debug, info, error, fault };

/// Writes lines where a person reads them. Any thread may call; a line is never torn.
class ConsoleLogger {
public:
  using LineSink = std::function<void(LogType type, std::string_view line)>;

  static constexpr std::string_view subsystem = "com.kestrova.ios";
  static constexpr std::string_view category = "SDK";

  /// To the standard error stream, as "[subsystem:category] type: line".
  ConsoleLogger();
  explicit ConsoleLogger(LineSink sink);

  void log(LogType type, std::string_view line) const;

private:
  LineSink _sink;
};

}  // namespace kestrova
