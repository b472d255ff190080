#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrova::test {

using Request = boost::beast::http::request<boost::beast::http::string_body>;
using Response = boost::beast::http::response<boost::beast::http::string_body>;

/// A tiny HTTP or HTTPS server on loopback; a thread for every connection.
class LoopbackServer {
public:
  /// Nothing: the request is never answered.
  using Answer = std::function<std::optional<Response>(const Request&)>;
  /// \param certificate a PEM file with certificate and key; empty for plain HTTP
  explicit LoopbackServer(Answer answer, const std::string& certificate = "");
  ~LoopbackServer();
  std::string url(const std::string& host = "127.0.0.1") const;
  int connections() const { return _connections; }

private:
  void run();
  void serve(boost::asio::ip::tcp::socket socket);
  template <class Stream>
  void talk(Stream& stream);

  Answer _answer;
  std::optional<boost::asio::ssl::context> _tls;
  boost::asio::io_context _context;
  boost::asio::ip::tcp::acceptor _acceptor;
  std::atomic<int> _connections{0};
  std::thread _thread;
};

}  // namespace kestrova::test
