#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrova {

/// What can be read of a connection. On the thread that watches it.
class InputStream {
public:
  virtual ~InputStream() = default;
  /// How many bytes came; 0 at the end, and negative when it failed or nothing is there.
  virtual std::ptrdiff_t read(std::uint8_t* buffer, std::size_t maxLength) = 0;
};

enum class StreamEvent { openCompleted, hasBytesAvailable, errorOccurred, endEncountered };

/// Hears what becomes of a stream, on the thread that watches it.
class StreamDelegate {
public:
  virtual ~StreamDelegate() = default;
  /// \param error for people; empty unless the event is an error
  virtual void stream(InputStream& stream, StreamEvent handle, const char* error) = 0;
  /// Nothing came for a while.
  virtual void streamIsQuiet() {}
};

}  // namespace kestrova
