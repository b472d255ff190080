#include <kestrova/platform/NetworkCauses.h>
#include <kestrova/platform/linux/websocket/TcpStream.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/write.hpp>

namespace kestrova {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

void connectSocket(tcp::resolver& resolver, tcp::socket& socket, const WebSocketEndpoint& endpoint,
                   ByteStream::Opened done) {
  resolver.async_resolve(endpoint.host, endpoint.port,
                         [&socket, done = std::move(done)](
                             error_code error, const tcp::resolver::results_type& found) {
                           if (error) return done(error, "name look-up");
                           asio::async_connect(
                               socket, found,
                               [&socket, done](error_code failure, const tcp::endpoint&) {
                                 error_code ignored;
                                 if (!failure) socket.set_option(tcp::no_delay(true), ignored);
                                 done(failure, "connection");
                               });
                         });
}

void closeSocket(tcp::resolver& resolver, tcp::socket& socket, bool reset) {
  error_code ignored;
  resolver.cancel();
  if (reset) socket.set_option(asio::socket_base::linger(true, 0), ignored);
  socket.close(ignored);
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
  explicit TcpStream(const WebSocketStrand& strand) : _resolver(strand), _socket(strand) {}

  void open(const WebSocketEndpoint& endpoint, Opened done) override {
    connectSocket(_resolver, _socket, endpoint, std::move(done));
  }
  void read(asio::mutable_buffer into, Transferred done) override {
    _socket.async_read_some(into, std::move(done));
  }
  void write(asio::const_buffer from, std::function<void()> progress, Transferred done) override {
    asio::async_write(_socket, from, untilAllIsWritten(std::move(progress)), std::move(done));
  }
  void close(bool reset) override { closeSocket(_resolver, _socket, reset); }
  std::string explain(const error_code& error) const override { return explainSocket(error); }

private:
  tcp::resolver _resolver;
  tcp::socket _socket;
};

}  // namespace

std::unique_ptr<ByteStream> makeTcpStream(const WebSocketStrand& strand) {
  return std::make_unique<TcpStream>(strand);
}

}  // namespace kestrova
