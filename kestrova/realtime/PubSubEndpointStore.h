#pragma once

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

private:
  mutable std::mutex _lock;
  std::optional<std::string> _pubSubUrl;
};

}  // namespace kestrova
