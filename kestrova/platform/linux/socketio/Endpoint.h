#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova {

/// Where a Socket.IO server listens and what to ask it for.
struct Endpoint {
  bool secure = false;
  /// A name or an address; an IPv6 address has no brackets.
  std::string host;
  bool hostIsAddress = false;
  std::string port;
  /// The value of the Host header.
  std::string authority;
  /// Path and query of the WebSocket request. Holds secrets: never log it.
  std::string target;

  /// Takes scheme (http, https, ws or wss), host and port from `url`, the rest from the other two.
  /// Nothing when `url` is no such URL.
  static std::optional<Endpoint> make(
      const std::string& url, const std::string& path,
      const std::vector<std::pair<std::string, std::string>>& parameters);
};

}  // namespace kestrova
