#pragma once

#include <kestrova/inspector/RecordTypes.h>

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kestrova::inspector {

/// How a span ended, and what is known of it where its start was not heard.
struct SpanEnding {
  std::string id;
  std::string name;
  Ms t = 0;
  Ms durationMs = 0;
  bool success = true;
  std::string message{};
  TraceAttributes attributes{};  ///< joins those of the start
  std::string category{};
};

/// About how many bytes of memory it takes.
std::size_t weight(const SpanFacts& span);
std::size_t weight(const SpanEnding& ending);
std::size_t weight(const EventFacts& event);

/// Entries in the order of their coming, numbered from the first ever.
template <class Entry>
class Ring {
public:
  static constexpr std::size_t mostEntries = 5000;
  // Texts are cut, but an entry may have many of them.
  static constexpr std::size_t mostBytes = 8 * 1024 * 1024;

  void push(Entry entry) {
    _bytes += weight(entry);
    _entries.push_back(std::move(entry));
  }
  void drop() {
    _bytes -= weight(_entries.front());
    _entries.pop_front();
    ++_dropped;
  }
  template <class Change>
  const Entry& change(std::size_t number, Change change) {
    auto& entry = _entries[number - _dropped];
    _bytes -= weight(entry);
    change(entry);
    _bytes += weight(entry);
    return entry;
  }
  bool isTooMuch() const {
    return _entries.size() > mostEntries || (_bytes > mostBytes && _entries.size() > 1);
  }
  std::size_t nextNumber() const { return _dropped + _entries.size(); }
  const std::deque<Entry>& entries() const { return _entries; }

private:
  std::deque<Entry> _entries;
  std::size_t _bytes = 0;
  std::size_t _dropped = 0;
};

/// The library's trace of the last minutes. One thread.
class TraceRecord {
public:
  /// What was kept, with its texts cut to a length for people.
  const SpanFacts& started(SpanFacts span);
  const SpanFacts& ended(SpanEnding ending);
  const EventFacts& happened(EventFacts event);

  /// Appends what is not over since before `oldest`, as JSON objects with commas between them.
  void appendSpans(std::string& json, Ms oldest) const;
  void appendEvents(std::string& json, Ms oldest) const;
  /// Lets go of what was over before that.
  void forget(Ms oldest);

private:
  void forgetSpan();

  Ring<SpanFacts> _spans;
  Ring<EventFacts> _events;
  std::unordered_map<std::string, std::size_t> _numbers;  // of the spans that are there
};

}  // namespace kestrova::inspector
