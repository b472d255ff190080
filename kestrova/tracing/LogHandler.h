#pragma once

#include <kestrova/tracing/TraceCategories.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace kestrova {

/// One line of the library's log. Valid during the call only.
struct LogLine {
  /// The quietest level at which the line shows: `error`, `warn`, `info`, `debug` or `all`.
  LogLevel level = LogLevel::info;
  /// What happened, without the attributes. An operation's beginning starts with "▶", its end with
  /// "◀".
  std::string_view text{};
  /// Secrets are blotted out. "component" says which piece of the library speaks, such as
  /// "MEETING".
  const std::map<std::string, std::string, std::less<>>& attributes;
};

/// Takes the lines of the log; on any thread of the library, several at once.
using LogHandler = std::function<void(const LogLine& line)>;

}  // namespace kestrova
