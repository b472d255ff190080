#pragma once

#include <kestrova/platform/Task.h>
#include <kestrova/platform/URLSession.h>
#include <kestrova/platform/Values.h>

#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// What the look-up of a meeting came to.
struct ServerConfig {
  /// The answer's "data", or the whole answer when the service refused in words ("error", "code"),
  /// or nothing.
  Dictionary answer;
  /// Why `answer` doesn't help, for people; empty when it does.
  std::string cause;
};

/// The HTTP side of a join.
struct APIManager {
  /// Where meetings are looked up when the application names no service of its own.
  static constexpr const char* defaultApiHost = "api.kestrova.live";

  /// Asks the service where this meeting's signalling server is and how to report logs and traces.
  ///
  /// Never fails: every fault is traced. The HTTP status decides nothing.
  /// \param secret the access token, sent as it stands
  /// \param signalingBaseUrl host and port, joined to "https://" as it stands
  static Task<ServerConfig> getServerConfig(std::shared_ptr<URLSession> session, std::string secret,
                                            std::string roomId,
                                            std::optional<std::string> signalingBaseUrl);
};

}  // namespace kestrova
