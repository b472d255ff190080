#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// Which source of the sound server "the microphone" of this process is at present, where that was
/// chosen: recordings begin there, and those that run go over to it. Thread-safe.
class MicrophoneRoute {
public:
  /// Whoever has to look again when the choice changes.
  class Follower {
  public:
    virtual ~Follower() = default;
    /// On whichever thread; must not wait.
    virtual void routeChanged() = 0;
  };

  static MicrophoneRoute& shared();

  /// The process's configuration: a source by its name, empty for the default one; nothing where
  /// the microphone is no device of the server. Another one than before ends what was chosen.
  void configure(const std::optional<std::string>& source);
  /// Whether the microphone is a device of the server.
  bool isDevice() const;

  /// The choice of a source. Nothing: what is built in while it is given below, else the default.
  void prefer(std::optional<std::string> source);
  /// The source that belongs to an overridden speaker.
  void setBuiltIn(std::optional<std::string> source);
  /// Sources came or went: what wasn't there may be now.
  void sourcesChanged();

  /// The name to record from, empty for the default source. \param configured where nothing was
  /// chosen
  std::string source(const std::string& configured) const;
  /// The same for the process's configuration.
  std::string source() const;
  /// Differs after each change; cheap to ask.
  std::uint64_t version() const;

  void add(std::weak_ptr<Follower> follower);

private:
  template <class Change>
  void change(Change&& apply);

  mutable std::mutex _lock;
  // All under _lock:
  std::optional<std::string> _configured = "";
  bool _isChosen = false;
  std::optional<std::string> _preferred;
  std::optional<std::string> _builtIn;
  std::uint64_t _version = 1;
  std::vector<std::weak_ptr<Follower>> _followers;
};

}  // namespace kestrova
