#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kestrova::test {

/// One WebSocket connection as the server's side of a script sees it. Throws when it is gone.
class ScriptedPeer {
public:
  explicit ScriptedPeer(boost::asio::ip::tcp::socket socket);
  void accept();
  /// Shakes hands and lets the client into the namespace.
  void welcome(const std::string& handshake =
                   R"({"sid":"s","upgrades":[],"pingInterval":25000,"pingTimeout":20000})");
  void text(const std::string& message);
  void bytes(const std::string& message);
  std::string read();
  /// Reads until the client goes.
  void linger();
  void close(std::uint16_t code);
  /// Reads until the client closes and gives the code that it closes with.
  std::uint16_t closeCode();
  const boost::beast::websocket::request_type& request() const { return _request; }
  boost::asio::ip::tcp::socket& socket() { return _stream.next_layer(); }

private:
  boost::beast::websocket::request_type _request;
  boost::beast::websocket::stream<boost::asio::ip::tcp::socket> _stream;
};

/// Listens on loopback and runs the n-th script with the n-th connection, the last one again and
/// again.
class ScriptedServer {
public:
  using Script = std::function<void(ScriptedPeer&)>;
  explicit ScriptedServer(std::vector<Script> scripts);
  ~ScriptedServer();
  std::string url() const;

private:
  void run();
  std::vector<Script> _scripts;
  boost::asio::io_context _context;
  boost::asio::ip::tcp::acceptor _acceptor;
  std::thread _thread;
};

}  // namespace kestrova::test
