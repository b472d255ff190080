#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrova {

/// Where a WebSocket server listens and what to ask it for.
struct WebSocketEndpoint {
  bool secure = false;
  /// A name or an address; an IPv6 address has no brackets.
  std::string host;
  bool hostIsAddress = false;
  std::string port;
  /// The value of the Host header.
  std::string authority;
  /// Path and query of the request. May hold secrets: never log it.
  std::string target;

  /// Takes all from `url`, whose scheme is http, https, ws or wss. Nothing when it is no such URL.
  static std::optional<WebSocketEndpoint> make(const std::string& url);
};

/// A request target: `path`, with what it must not hold percent-encoded and a slash at either end,
/// then `query` as it stands, then the parameters, encoded.
std::string makeTarget(const std::string& path, std::string_view query,
                       const std::vector<std::pair<std::string, std::string>>& parameters);

}  // namespace kestrova
