#pragma once

#include <kestrova/platform/SocketIO.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrova {

/// The application's handlers. Registration from any thread, `raise` on the handlers' queue. A
/// handler may register and remove handlers, its own included.
class SocketHandlers {
public:
  void add(const std::string& event, SocketIOClient::EventHandler handler);
  void add(SocketClientEvent event, SocketIOClient::ClientHandler handler);
  void addAny(SocketIOClient::AnyHandler handler);

  /// Stands for the handlers that are registered now.
  std::uint64_t mark() const;
  /// Removes the handlers that were registered when `mark` was taken.
  void removeUpTo(std::uint64_t mark);

  void raise(const SocketAnyEvent& event, const std::shared_ptr<SocketAckEmitter>& ack);
  void raise(SocketClientEvent event, const SocketItems& items);

private:
  template <class F>
  struct Entry {
    std::uint64_t number = 0;
    std::shared_ptr<const F> call;
  };
  template <class F>
  using Entries = std::vector<Entry<F>>;
  static constexpr std::size_t clientEvents = 5;
  struct Table {
    std::unordered_map<std::string, Entries<SocketIOClient::EventHandler>> byName;
    std::array<Entries<SocketIOClient::ClientHandler>, clientEvents> byClientEvent;
    Entries<SocketIOClient::AnyHandler> any;
  };

  std::shared_ptr<const Table> table() const;
  template <class Change>
  void change(Change change);
  template <class F, class... Arguments>
  void callAll(const Entries<F>& entries, const Arguments&... arguments) const;

  mutable std::mutex _lock;
  /// Replaced, never changed, so that raising needs the lock for a moment only.
  std::shared_ptr<const Table> _table = std::make_shared<Table>();
  std::uint64_t _count = 0;
  std::atomic<std::uint64_t> _removed{0};
};

}  // namespace kestrova
