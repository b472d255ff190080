#pragma once

#include <cstdint>

namespace kestrova {

struct SinkCounters {
  std::uint64_t delivered = 0;  ///< calls that returned
  std::uint64_t dropped = 0;    ///< what was overtaken because the sink was slow
  std::uint64_t failed = 0;     ///< calls that threw
};

/// A sink's place on a stream. Letting go of it leaves the sink there. Thread-safe.
class SinkHandle {
public:
  virtual ~SinkHandle() = default;
  virtual SinkCounters counters() const = 0;
  /// No call of the sink begins afterwards; one that is under way goes on. May be called from
  /// within the sink.
  virtual void remove() = 0;
};

}  // namespace kestrova
