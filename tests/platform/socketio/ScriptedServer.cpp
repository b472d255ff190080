#include "ScriptedServer.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/http/read.hpp>
#include <sys/socket.h>

namespace kestrova::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;

ScriptedPeer::ScriptedPeer(tcp::socket socket) : _stream(std::move(socket)) {
  _stream.read_message_max(256 * 1024 * 1024);
  _stream.next_layer().set_option(tcp::no_delay(true));
}

void ScriptedPeer::accept() {
  beast::flat_buffer buffer;
  beast::http::read(_stream.next_layer(), buffer, _request);
  _stream.accept(_request);
}

void ScriptedPeer::welcome(const std::string& handshake) {
  accept();
  text(std::string("0").append(handshake));
  if (read() != "40") throw std::runtime_error("the client did not ask for the namespace");
  text(R"(40{"sid":"n"})");
}

void ScriptedPeer::text(const std::string& message) {
  _stream.text(true);
  _stream.write(asio::buffer(message));
}

void ScriptedPeer::bytes(const std::string& message) {
  _stream.binary(true);
  _stream.write(asio::buffer(message));
}

std::string ScriptedPeer::read() {
  beast::flat_buffer buffer;
  _stream.read(buffer);
  return beast::buffers_to_string(buffer.data());
}

void ScriptedPeer::linger() {
  for (;;) read();
}

void ScriptedPeer::close(std::uint16_t code) {
  _stream.close(beast::websocket::close_reason(code));
}

std::uint16_t ScriptedPeer::closeCode() {
  beast::flat_buffer buffer;
  boost::system::error_code error;
  while (!error) _stream.read(buffer, error);
  return _stream.reason().code;
}

ScriptedServer::ScriptedServer(std::vector<Script> scripts)
    : _scripts(std::move(scripts)),
      _acceptor(_context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
      _thread([this] { run(); }) {}

ScriptedServer::~ScriptedServer() {
  // Wakes an accept that blocks; the client of the script that runs must be gone by now.
  ::shutdown(_acceptor.native_handle(), SHUT_RDWR);
  _thread.join();
}

std::string ScriptedServer::url() const {
  return "http://127.0.0.1:" + std::to_string(_acceptor.local_endpoint().port());
}

void ScriptedServer::run() {
  for (std::size_t next = 0;;) {
    boost::system::error_code error;
    auto socket = _acceptor.accept(error);
    if (error) return;
    try {
      ScriptedPeer peer(std::move(socket));
      _scripts[next](peer);
    } catch (const std::exception&) {
      // The client went; the next connection is due.
    }
    if (next + 1 < _scripts.size()) ++next;
  }
}

}  // namespace kestrova::test
