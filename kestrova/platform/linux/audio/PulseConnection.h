#pragma once

#include <pulse/pulseaudio.h>

#include <chrono>
#include <memory>

namespace kestrova {

/// A connection to the sound server with an event loop that its owner turns. It never starts a
/// server.
///
/// Belongs to one thread at a time; only `wake` may be called from elsewhere.
class PulseConnection {
public:
  using Clock = std::chrono::steady_clock;

  PulseConnection();
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  /// Begins to connect, to the server that the user's settings name. False when that failed
  /// already.
  bool open();
  void close();
  /// Between `open` and the loss of the server.
  bool isOpen() const;
  bool isReady() const;
  /// Valid until `close`.
  pa_context* context() const { return _context; }

  /// Waits for something to happen, until `until` at the latest, and lets it have its callbacks.
  void iterate(Clock::time_point until = Clock::time_point::max());
  /// Ends the wait of the present or the next `iterate`.
  void wake();

  /// Connects. False when there is no server, or none that answers in time.
  bool openUntil(Clock::time_point until);
  /// Iterates until the operation is done. False when it was cut off by the time or the server's
  /// end; its callback doesn't come later. Takes the operation over, which may be null.
  bool await(pa_operation* operation, Clock::time_point until);

private:
  struct FreeLoop {
    void operator()(pa_mainloop* loop) const { pa_mainloop_free(loop); }
  };
  // The loop's own way to be woken forgets a call that comes just before it waits.
  const int _wakeUp;
  std::unique_ptr<pa_mainloop, FreeLoop> _loop;  // none when the process has no descriptors left
  pa_context* _context = nullptr;
};

/// Properties of our streams: the server mixes, routes and pauses by them.
struct FreeProperties {
  void operator()(pa_proplist* list) const { pa_proplist_free(list); }
};
std::unique_ptr<pa_proplist, FreeProperties> callProperties();

}  // namespace kestrova
