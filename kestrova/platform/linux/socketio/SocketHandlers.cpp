#include <kestrova/platform/linux/socketio/SocketHandlers.h>

#include <algorithm>
#include <utility>

namespace kestrova {

static_assert(static_cast<int>(SocketClientEvent::error) == 4);

template <class Change>
void SocketHandlers::change(Change change) {
  std::shared_ptr<const Table> old;  // what handlers hold is released outside the lock
  std::scoped_lock held(_lock);
  auto next = std::make_shared<Table>(*_table);
  change(*next);
  old = std::exchange(_table, std::move(next));
}

void SocketHandlers::add(const std::string& event, SocketIOClient::EventHandler handler) {
  auto call = std::make_shared<const SocketIOClient::EventHandler>(std::move(handler));
  change([&](Table& table) { table.byName[event].push_back({++_count, std::move(call)}); });
}

void SocketHandlers::add(SocketClientEvent event, SocketIOClient::ClientHandler handler) {
  auto call = std::make_shared<const SocketIOClient::ClientHandler>(std::move(handler));
  change([&](Table& table) {
    table.byClientEvent[static_cast<std::size_t>(event)].push_back({++_count, std::move(call)});
  });
}

void SocketHandlers::addAny(SocketIOClient::AnyHandler handler) {
  auto call = std::make_shared<const SocketIOClient::AnyHandler>(std::move(handler));
  change([&](Table& table) { table.any.push_back({++_count, std::move(call)}); });
}

std::uint64_t SocketHandlers::mark() const {
  std::scoped_lock held(_lock);
  return _count;
}

void SocketHandlers::removeUpTo(std::uint64_t mark) {
  auto removed = _removed.load();
  while (removed < mark && !_removed.compare_exchange_weak(removed, mark)) {
  }
  change([&](Table& table) {
    auto strip = [&](auto& entries) {
      std::erase_if(entries, [&](const auto& entry) { return entry.number <= mark; });
    };
    for (auto& [name, entries] : table.byName) strip(entries);
    for (auto& entries : table.byClientEvent) strip(entries);
    strip(table.any);
  });
}

std::shared_ptr<const SocketHandlers::Table> SocketHandlers::table() const {
  std::scoped_lock held(_lock);
  return _table;
}

template <class F, class... Arguments>
void SocketHandlers::callAll(const Entries<F>& entries, const Arguments&... arguments) const {
  for (const auto& entry : entries)
    if (entry.number > _removed.load() && *entry.call) (*entry.call)(arguments...);
}

void SocketHandlers::raise(const SocketAnyEvent& event,
                           const std::shared_ptr<SocketAckEmitter>& ack) {
  const auto current = table();
  callAll(current->any, event);
  const auto found = current->byName.find(event.event);
  if (found != current->byName.end()) callAll(found->second, event.items, ack);
}

void SocketHandlers::raise(SocketClientEvent event, const SocketItems& items) {
  const auto current = table();
  callAll(current->byClientEvent[static_cast<std::size_t>(event)], items);
}

}  // namespace kestrova
