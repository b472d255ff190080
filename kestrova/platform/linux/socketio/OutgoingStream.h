#pragma once

#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/websocket/teardown.hpp>

#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace kestrova {

/// A layer below a WebSocket stream that gathers what is written, so that many small messages leave
/// in one system call and one TLS record.
///
/// What the WebSocket stream writes (handshake, pong, close) counts as written once it is gathered;
/// `wake` is then called, for the owner to send `gathered`. The owner may add whole frames to it.
template <class NextLayer>
class OutgoingStream {
public:
  using next_layer_type = NextLayer;
  using executor_type = typename NextLayer::executor_type;

  template <class... Arguments>
  explicit OutgoingStream(Arguments&&... arguments)
      : _next(std::forward<Arguments>(arguments)...) {}

  executor_type get_executor() noexcept { return _next.get_executor(); }
  NextLayer& next_layer() noexcept { return _next; }
  const NextLayer& next_layer() const noexcept { return _next; }

  std::string gathered;
  std::function<void()> wake;

  template <class Buffers, class Handler>
  auto async_read_some(const Buffers& buffers, Handler&& handler) {
    return _next.async_read_some(buffers, std::forward<Handler>(handler));
  }

  template <class Buffers, class Handler>
  auto async_write_some(const Buffers& buffers, Handler&& handler) {
    auto begin = [this](auto done, const Buffers& pieces) {
      const auto before = gathered.size();
      for (auto piece = boost::asio::buffer_sequence_begin(pieces);
           piece != boost::asio::buffer_sequence_end(pieces); ++piece) {
        const boost::asio::const_buffer bytes(*piece);
        gathered.append(static_cast<const char*>(bytes.data()), bytes.size());
      }
      const auto size = gathered.size() - before;
      wake();
      boost::asio::post(get_executor(), boost::beast::bind_front_handler(
                                            std::move(done), boost::system::error_code(), size));
    };
    return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
        begin, handler, buffers);
  }

  friend void teardown(boost::beast::role_type role, OutgoingStream& stream,
                       boost::system::error_code& error) {
    using boost::beast::websocket::teardown;
    teardown(role, stream._next, error);
  }
  template <class Handler>
  friend void async_teardown(boost::beast::role_type role, OutgoingStream& stream,
                             Handler&& handler) {
    using boost::beast::websocket::async_teardown;
    async_teardown(role, stream._next, std::forward<Handler>(handler));
  }

private:
  NextLayer _next;
};

}  // namespace kestrova
