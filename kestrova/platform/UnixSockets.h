#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kestrova {

/// A thread that watches sockets and calls whoever waits for them. Letting go of it ends the thread
/// after the call that is running; from within such a call, too.
class SocketLoop {
public:
  virtual ~SocketLoop() = default;
  /// Calls `readable` on the thread whenever `handle` has something to read, or has ended. It
  /// replaces an earlier one.
  virtual void watch(int handle, std::function<void()> readable) = 0;
  /// No call for `handle` begins any more, and `handle` is closed once none is running.
  virtual void release(int handle) = 0;
  /// Calls `work` on the thread each time that nothing was to be read for so long.
  virtual void whenQuiet(std::chrono::milliseconds interval, std::function<void()> work) = 0;
};

/// Sockets of the family AF_UNIX, as the system has them. Handles are those of the system; nothing
/// here waits. Thread-safe.
class UnixSockets {
public:
  virtual ~UnixSockets() = default;
  /// A new stream socket, or -1.
  virtual int socket() = 0;
  virtual bool bind(int handle, const std::string& path) = 0;
  virtual bool listen(int handle, int backlog) = 0;
  /// The next client, or -1. One that runs as somebody else than this process is turned away.
  virtual int accept(int handle) = 0;
  /// How many bytes came; 0 at the end, and negative when none can be had.
  virtual std::ptrdiff_t read(int handle, std::uint8_t* bytes, std::size_t length) = 0;
  /// What the last failure on the calling thread was, for people; empty when there was nothing to
  /// be had just then.
  virtual std::string lastError() = 0;
  virtual void close(int handle) = 0;
  virtual void unlink(const std::string& path) = 0;
  /// Tells the file that lies there now from any other that ever does; empty where there is none.
  virtual std::string fileId(const std::string& path) = 0;
  virtual std::unique_ptr<SocketLoop> makeLoop() = 0;
};

}  // namespace kestrova
