#pragma once

#include <kestrova/platform/linux/websocket/ByteStream.h>

#include <boost/asio/ip/tcp.hpp>

namespace kestrova {

/// Looks up `endpoint` and connects `socket`. All three must live until `done` is called.
void connectSocket(boost::asio::ip::tcp::resolver& resolver, boost::asio::ip::tcp::socket& socket,
                   const WebSocketEndpoint& endpoint, ByteStream::Opened done);
void closeSocket(boost::asio::ip::tcp::resolver& resolver, boost::asio::ip::tcp::socket& socket,
                 bool reset);

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
