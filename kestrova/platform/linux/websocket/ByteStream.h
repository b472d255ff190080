#pragma once

#include <kestrova/platform/linux/websocket/TlsTrust.h>
#include <kestrova/platform/linux/websocket/WebSocketEndpoint.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/system/error_code.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace kestrova {

using WebSocketStrand = boost::asio::strand<boost::asio::any_io_executor>;

/// Called once with the outcome of a transfer. Move-only, as the handlers that it carries.
class Transferred {
public:
  template <class F>
  requires(!std::is_same_v<std::decay_t<F>, Transferred>) explicit Transferred(F&& handler)
      : _body(std::make_unique<Model<std::decay_t<F>>>(std::forward<F>(handler))) {}

  void operator()(const boost::system::error_code& error, std::size_t size) {
    // The handler may start the next transfer, so its own memory goes first.
    const auto body = std::move(_body);
    body->run(error, size);
  }

private:
  struct Concept {
    virtual ~Concept() = default;
    virtual void run(const boost::system::error_code& error, std::size_t size) = 0;
  };
  template <class F>
  struct Model final : Concept {
    explicit Model(F&& f) : handler(std::move(f)) {}
    void run(const boost::system::error_code& error, std::size_t size) override {
      auto taken = std::move(handler);
      taken(error, size);
    }
    F handler;
  };
  std::unique_ptr<Concept> _body;
};

/// What lies below a WebSocket: TCP, or TLS over it. One virtual layer, so that all above it is
/// compiled once. For the strand; handlers are called on it and must keep the stream alive.
class ByteStream {
public:
  /// `step` names what has failed.
  using Opened = std::function<void(const boost::system::error_code& error, const char* step)>;

  virtual ~ByteStream() = default;
  /// Looks up the name, connects and, for TLS, shakes hands.
  virtual void open(const WebSocketEndpoint& endpoint, Opened done) = 0;
  virtual void read(boost::asio::mutable_buffer into, Transferred done) = 0;
  /// Writes all of it. `progress` is called for every piece that has gone.
  virtual void write(boost::asio::const_buffer from, std::function<void()> progress,
                     Transferred done) = 0;
  /// Ends what is pending. \param reset also throws away what the kernel still has to send
  virtual void close(bool reset) = 0;
  /// The cause of an error in words.
  virtual std::string explain(const boost::system::error_code& error) const = 0;
};

std::unique_ptr<ByteStream> makeTcpStream(const WebSocketStrand& strand);

std::unique_ptr<ByteStream> makeTlsStream(const WebSocketStrand& strand,
                                          std::shared_ptr<TlsTrust> trust);

}  // namespace kestrova
