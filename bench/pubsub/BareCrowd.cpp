#include "BareCrowd.h"

#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/ProtoReader.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>

#include <deque>
#include <stdexcept>

namespace kestrova::bench {
namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using Tcp = asio::ip::tcp;

}  // namespace

class BareCrowd::Connection : public std::enable_shared_from_this<Connection> {
public:
  Connection(asio::io_context& io, asio::ssl::context& tls, BareCrowd& crowd)
      : _socket(io, tls), _crowd(crowd) {}

  void open(const std::string& port) {
    auto& tcp = boost::beast::get_lowest_layer(_socket);
    tcp.connect({asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(std::stoi(port))});
    tcp.set_option(Tcp::no_delay(true));
    auto& tls = _socket.next_layer();
    tls.set_verify_callback(asio::ssl::host_name_verification("localhost"));
    tls.handshake(asio::ssl::stream_base::client);
    _socket.handshake("localhost:" + port, "/");
    _socket.binary(true);
  }
  /// Before the thread runs; waits for the agreement.
  void subscribe(int number) {
    const auto requestId = "subscribe-" + std::to_string(number);
    const auto frame =
        FastwsClientMessage{FastwsSubscribe{.topic = kTopic, .requestId = requestId}}.encoded();
    _socket.write(asio::buffer(frame));
    _socket.read(_buffer);
    _buffer.clear();
  }
  void read() {
    _socket.async_read(
        _buffer, [self = shared_from_this()](boost::system::error_code error, std::size_t) {
          if (error) return;
          const auto data = self->_buffer.cdata();
          self->_crowd.frameArrived(static_cast<const char*>(data.data()), data.size());
          self->_buffer.clear();
          self->read();
        });
  }
  void send(Bytes frame) {
    _waiting.push_back(std::move(frame));
    if (_waiting.size() == 1) write();
  }
  void close() {
    boost::system::error_code ignored;
    boost::beast::get_lowest_layer(_socket).close(ignored);
  }

private:
  void write() {
    _socket.async_write(asio::buffer(_waiting.front()),
                        [self = shared_from_this()](boost::system::error_code error, std::size_t) {
                          if (error) return;
                          self->_waiting.pop_front();
                          if (!self->_waiting.empty()) self->write();
                        });
  }

  websocket::stream<asio::ssl::stream<Tcp::socket>> _socket;
  BareCrowd& _crowd;
  boost::beast::flat_buffer _buffer;
  std::deque<Bytes> _waiting;
};

BareCrowd::BareCrowd(const std::string& port) {
  _tls.set_default_verify_paths();
  _tls.set_verify_mode(asio::ssl::verify_peer);
  for (int i = 0; i <= kListeners; ++i) {
    _connections.push_back(std::make_shared<Connection>(_io, _tls, *this));
    _connections.back()->open(port);
    if (i > 0) _connections.back()->subscribe(i);
  }
  for (const auto& connection : _connections) connection->read();
  _thread = std::thread([this] { _io.run(); });
}

BareCrowd::~BareCrowd() {
  asio::post(_io, [this] {
    for (const auto& connection : _connections) connection->close();
  });
  _work.reset();
  _thread.join();
}

void BareCrowd::publish(std::uint32_t number) {
  asio::post(_io, [this, number] {
    const auto text = textOf(number);
    const auto id = std::to_string(100'000'000'000'000'000 + number);
    const FastwsPublish publish{.topic = kTopic,
                                .message = text,
                                .timestamp = "2026-01-31T12:00:00Z",
                                .senderId = "publisher",
                                .senderName = "Publisher",
                                .messageId = id,
                                .requestId = id};
    _connections.front()->send(FastwsClientMessage{publish}.encoded());
  });
}

/// Steps from entry to entry, each of which begins with its text.
void BareCrowd::frameArrived(const char* bytes, std::size_t size) {
  constexpr char acknowledgement = 0x12;
  if (bytes[0] == acknowledgement) return _events.acknowledged();
  constexpr std::uint64_t payloads = 2;
  ProtoReader envelope(bytesOf({bytes, size}));
  envelope.readKey();
  ProtoReader batch(envelope.readBytes());
  while (!batch.atEnd()) {
    const auto key = batch.readKey();
    const auto value = batch.readBytes();
    if (key.field != payloads) continue;
    ProtoReader entry(value);
    entry.readKey();
    _events.delivered(numberOf(kestrova::textOf(entry.readBytes()).data()));
  }
}

}  // namespace kestrova::bench
