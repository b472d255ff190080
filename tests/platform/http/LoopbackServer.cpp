#include "LoopbackServer.h"

#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <sys/socket.h>

namespace kestrova::test {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;

LoopbackServer::LoopbackServer(Answer answer, const std::string& certificate)
    : _answer(std::move(answer)),
      _acceptor(_context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {
  if (!certificate.empty()) {
    _tls.emplace(asio::ssl::context::tls_server);
    _tls->use_certificate_chain_file(certificate);
    _tls->use_private_key_file(certificate, asio::ssl::context::pem);
  }
  _thread = std::thread([this] { run(); });
}

LoopbackServer::~LoopbackServer() {
  ::shutdown(_acceptor.native_handle(), SHUT_RDWR);  // wakes the accept
  _thread.join();
}

std::string LoopbackServer::url(const std::string& host) const {
  return std::string(_tls ? "https://" : "http://")
      .append(host)
      .append(":")
      .append(std::to_string(_acceptor.local_endpoint().port()));
}

void LoopbackServer::run() {
  std::vector<std::thread> threads;
  std::vector<int> sockets;
  for (;;) {
    boost::system::error_code error;
    auto socket = _acceptor.accept(error);
    if (error) break;
    ++_connections;
    sockets.push_back(::dup(socket.native_handle()));
    threads.emplace_back(&LoopbackServer::serve, this, std::move(socket));
  }
  for (const int handle : sockets) {
    ::shutdown(handle, SHUT_RDWR);
    ::close(handle);
  }
  for (auto& thread : threads) thread.join();
}

void LoopbackServer::serve(tcp::socket socket) try {
  if (!_tls) return talk(socket);
  asio::ssl::stream<tcp::socket> stream(std::move(socket), *_tls);
  stream.handshake(asio::ssl::stream_base::server);
  talk(stream);
} catch (const std::exception&) {
  // The client went.
}

template <class Stream>
void LoopbackServer::talk(Stream& stream) {
  boost::beast::flat_buffer buffer;
  for (;;) {
    http::request_parser<http::string_body> parser;
    parser.body_limit(64 * 1024 * 1024);
    http::read(stream, buffer, parser);
    auto answer = _answer(parser.get());
    if (!answer) {
      Request never;
      http::read(stream, buffer, never);  // until the client hangs up
      return;
    }
    answer->prepare_payload();
    http::write(stream, *answer);
  }
}

}  // namespace kestrova::test
