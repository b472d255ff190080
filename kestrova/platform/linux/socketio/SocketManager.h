#pragma once

#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/SocketIO.h>

#include <boost/asio/any_io_executor.hpp>

#include <chrono>
#include <memory>
#include <string>

namespace kestrova {

/// What a `SocketManager` is made with beside the application's wishes.
struct SocketManagerOptions {
  /// The clock for acknowledgements and reconnection; the platform's when there is none.
  std::shared_ptr<Scheduler> scheduler;
  /// From the look-up of the name until the server has let the client in.
  std::chrono::milliseconds connectTimeout{20'000};
  /// How long a connection that is being closed may take to send what was queued.
  std::chrono::milliseconds closeTimeout{2'000};
  /// How long the network may take nothing of what is to be sent before the connection is lost.
  std::chrono::milliseconds stallTimeout{10'000};
  /// How long a connection has to last for the attempts that led to it to be forgotten. A drop
  /// before that goes on with the attempts that were left.
  std::chrono::milliseconds lastingTime{10'000};
  /// The least that the server's ping interval and time-out are taken for.
  std::chrono::milliseconds shortestPing{1'000};
};

/// A Socket.IO 5 client over Engine.IO 4 on a WebSocket, with TLS for https and wss.
///
/// Network work runs on `io`, one piece at a time. Certificates are always verified, against the
/// system's authorities or those that `SSL_CERT_FILE` and `SSL_CERT_DIR` name. Nothing when `url`
/// is no http, https, ws or wss URL. Protocols: Engine.IO protocol 4 and Socket.IO protocol 5.
std::shared_ptr<SocketManager> makeSocketManager(const std::string& url, SocketManagerConfig config,
                                                 boost::asio::any_io_executor io,
                                                 SocketManagerOptions options = {});

}  // namespace kestrova
