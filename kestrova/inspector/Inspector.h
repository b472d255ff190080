#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kestrova {

class Meeting;

/// Shows a meeting on a page in a browser of this machine: who is there, how every stream flows,
/// what changes and fails, and the library's trace, live and two minutes back.
///
///     Inspector inspector(meeting);
///     std::puts(inspector.address().c_str());
///
/// The page is served on 127.0.0.1 only, at an address that holds a random key: whoever gets the
/// address may look. Secrets are redacted in what it shows. The trace is the process's, of
/// whichever meetings it has. A thread of its own does the work, so that a slow browser holds up
/// nobody. Any thread may make it and let it go.
class Inspector {
public:
  struct Options {
    std::uint16_t port = 0;  ///< 0: any free one
  };

  /// The meeting is held weakly; what was seen of it stays to be looked at after its end.
  /// \throws std::system_error when the port is taken
  explicit Inspector(const std::shared_ptr<Meeting>& meeting);
  Inspector(const std::shared_ptr<Meeting>& meeting, Options options);
  /// Open pages keep what they show, and get nothing more. Returns within 100 ms. In a child
  /// process that came by fork, nothing happens: the pages are the parent's.
  ~Inspector();
  Inspector(const Inspector&) = delete;
  Inspector& operator=(const Inspector&) = delete;

  /// "http://127.0.0.1:PORT/KEY/".
  std::string address() const;

private:
  struct State;
  std::unique_ptr<State> _state;
};

}  // namespace kestrova
