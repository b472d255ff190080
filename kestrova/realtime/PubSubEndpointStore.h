#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// Where this meeting's topics are served, as the answer to "join" told. Thread-safe.
class PubSubEndpointStore {
public:
  std::optional<std::string> pubSubUrl() const;
  /// Nothing clears the store.
  void update(std::optional<std::string> pubSubUrl);
  /// As at the meeting's end; traced.
  void clear();

  /// From a lost connection, or the beginning of a move to another meeting, until the join that
  /// follows: where topics will be served is not known, and the old place may know nobody any more.
  void awaitJoin();
  /// Which join is awaited: for the one that begins now.
  std::uint64_t awaitedJoin() const;
  /// \param awaited as it was when this join began; one that something has overtaken ends no
  /// waiting
  void joinAnswered(std::uint64_t awaited);
  bool awaitsJoin() const;

private:
  mutable std::mutex _lock;
  std::optional<std::string> _pubSubUrl;
  std::uint64_t _awaitedJoin = 0;
  bool _awaitsJoin = false;
};

}  // namespace kestrova
