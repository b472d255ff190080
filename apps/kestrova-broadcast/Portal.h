#pragma once

#include "Ending.h"
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sd_bus;

namespace kestrova::broadcast {

/// A screen cast that the desktop's portal granted.
class PortalSession {
public:
  /// Asks the user, as the desktop does; waits for as long as that takes. What was allowed before
  /// is not asked again where the desktop remembers it.
  /// \throws SourceFailure, SourceRefused, Ending::Reached
  explicit PortalSession(const Ending& ending);
  ~PortalSession();
  PortalSession(const PortalSession&) = delete;
  PortalSession& operator=(const PortalSession&) = delete;

  /// The stream's node.
  std::uint32_t node() const { return _node; }
  /// A connection to PipeWire on which that node is to be seen. The caller's.
  int openPipeWireRemote();
  /// Whether the desktop has ended the session. Reads what has come from it.
  bool isClosed();

private:
  struct Call;
  struct Answer;
  struct CloseBus {
    void operator()(sd_bus* bus) const;
  };

  void connect();
  std::uint32_t property(const char* name);
  /// \returns the answer's code: 0 done, 1 the user's no, 2 another end
  void request(const Call& call, Answer& answer);
  void judge(std::uint32_t code, const char* step) const;
  void createSession();
  void selectSources(const std::string& restoreToken);
  void start();

  const Ending& _ending;
  std::unique_ptr<sd_bus, CloseBus> _bus;
  std::string _session;
  std::uint32_t _node = 0;
  bool _isClosed = false;
};

}  // namespace kestrova::broadcast
