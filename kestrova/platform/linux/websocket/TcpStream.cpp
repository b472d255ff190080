#include <kestrova/platform/NetworkCauses.h>
#include <kestrova/platform/linux/websocket/TcpStream.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/write.hpp>

namespace kestrova {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

void SocketOpener::open(const WebSocketEndpoint& endpoint, ByteStream::Opened done) {
  auto connected = [this, done](error_code error, const tcp::endpoint&) {
    if (_closed) error = asio::error::operation_aborted;
    error_code ignored;
    if (!error) _socket.set_option(tcp::no_delay(true), ignored);
    done(error, "connection");
  };
  _resolver.async_resolve(
      endpoint.host, endpoint.port,
      [this, done, connected](error_code error, const tcp::resolver::results_type& found) {
        if (_closed) error = asio::error::operation_aborted;
        if (error) return done(error, "name look-up");
        asio::async_connect(_socket, found, connected);
      });
}

void SocketOpener::close(bool reset) {
  _closed = true;
  error_code ignored;
  _resolver.cancel();
  if (reset) _socket.set_option(asio::socket_base::linger(true, 0), ignored);
  _socket.close(ignored);
}

std::string explainSocket(const error_code& error) {
  namespace failure = asio::error;
  struct Row {
    error_code error;
    std::string_view cause;
  };
  const Row rows[] = {
      {failure::connection_refused, causes::refused},
      {failure::host_unreachable, causes::unreachable},
      {failure::network_unreachable, causes::unreachable},
      {failure::timed_out, causes::timedOut},
      {failure::host_not_found, causes::unknownHost},
      {failure::no_data, causes::unknownHost},
      {failure::host_not_found_try_again, causes::lookUpFailed},
      {failure::eof, causes::closed},
      {failure::connection_reset, causes::closed},
      {failure::broken_pipe, causes::closed},
  };
  for (const auto& row : rows)
    if (row.error == error) return std::string(row.cause);
  return error.message();
}

namespace {

class TcpStream final : public ByteStream {
public:
  explicit TcpStream(const WebSocketStrand& strand) : _socket(strand), _opener(strand, _socket) {}

  void open(const WebSocketEndpoint& endpoint, Opened done) override {
    _opener.open(endpoint, std::move(done));
  }
  void read(asio::mutable_buffer into, Transferred done) override {
    _socket.async_read_some(into, std::move(done));
  }
  void write(asio::const_buffer from, std::function<void()> progress, Transferred done) override {
    asio::async_write(_socket, from, untilAllIsWritten(std::move(progress)), std::move(done));
  }
  void close(bool reset) override { _opener.close(reset); }
  std::string explain(const error_code& error) const override { return explainSocket(error); }

private:
  tcp::socket _socket;
  SocketOpener _opener;
};

}  // namespace

std::unique_ptr<ByteStream> makeTcpStream(const WebSocketStrand& strand) {
  return std::make_unique<TcpStream>(strand);
}

}  // namespace kestrova
