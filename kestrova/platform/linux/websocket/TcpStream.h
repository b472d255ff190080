#pragma once

#include <kestrova/platform/linux/websocket/ByteStream.h>

#include <boost/asio/ip/tcp.hpp>

namespace kestrova {

/// Connects one socket, which lives at least as long. For the strand.
class SocketOpener {
public:
  SocketOpener(const WebSocketStrand& strand, boost::asio::ip::tcp::socket& socket)
      : _resolver(strand), _socket(socket) {}

  /// Looks up `endpoint` and connects. This object must live until `done` is called.
  void open(const WebSocketEndpoint& endpoint, ByteStream::Opened done);
  /// Closes the socket, for good: a look-up that can't be stopped any more connects nothing.
  void close(bool reset);

private:
  boost::asio::ip::tcp::resolver _resolver;
  boost::asio::ip::tcp::socket& _socket;
  bool _closed = false;
};

/// A failure of the look-up, the connection or a transfer, as people read it.
std::string explainSocket(const boost::system::error_code& error);

/// For `async_write`: goes on until all is written and reports each piece.
inline auto untilAllIsWritten(std::function<void()> progress) {
  return [progress = std::move(progress)](const boost::system::error_code& error,
                                          std::size_t written) -> std::size_t {
    constexpr std::size_t most = 64 * 1024;
    if (written != 0) progress();
    return error ? 0 : most;
  };
}

}  // namespace kestrova
