#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrova::test {

/// What the scripted parts were asked to do, a line each, in order.
class Journal {
public:
  void add(std::string line) { _lines.push_back(std::move(line)); }
  const std::vector<std::string>& lines() const { return _lines; }
  bool has(std::string_view line) const { return count(line) > 0; }
  /// Lines that begin with `prefix`.
  long count(std::string_view prefix) const {
    return std::count_if(_lines.begin(), _lines.end(),
                         [&](const std::string& line) { return line.starts_with(prefix); });
  }
  /// The lines that begin with one of `prefixes`.
  std::vector<std::string> only(std::vector<std::string_view> prefixes) const {
    std::vector<std::string> kept;
    for (const auto& line : _lines)
      if (std::any_of(prefixes.begin(), prefixes.end(),
                      [&](std::string_view prefix) { return line.starts_with(prefix); }))
        kept.push_back(line);
    return kept;
  }
  void clear() { _lines.clear(); }

private:
  std::vector<std::string> _lines;
};

}  // namespace kestrova::test
