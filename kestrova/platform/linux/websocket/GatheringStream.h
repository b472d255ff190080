#pragma once

#include <kestrova/platform/linux/websocket/ByteStream.h>

#include <boost/asio/async_result.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/role.hpp>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace kestrova {

/// The layer below a WebSocket stream. It gathers what is written, so that many small messages
/// leave in one system call and one TLS record.
///
/// What the WebSocket stream writes (handshake, pong, close) counts as written once it is gathered;
/// `wake` is then called, for the owner to send `gathered`. The owner may add whole frames to it.
class GatheringStream {
public:
  using executor_type = boost::asio::any_io_executor;

  GatheringStream(const WebSocketStrand& strand, std::unique_ptr<ByteStream> below)
      : _strand(strand), _below(std::move(below)) {}

  executor_type get_executor() noexcept { return _strand; }
  ByteStream& below() { return *_below; }

  std::string gathered;
  std::function<void()> wake;
  /// Called when both sides have said that they close, or one has to give up.
  std::function<void()> ending;

  template <class Buffers, class Handler>
  auto async_read_some(const Buffers& buffers, Handler&& handler) {
    auto begin = [this](auto done, const Buffers& pieces) {
      boost::asio::mutable_buffer into;
      for (auto piece = boost::asio::buffer_sequence_begin(pieces);
           into.size() == 0 && piece != boost::asio::buffer_sequence_end(pieces); ++piece)
        into = *piece;
      _below->read(into, Transferred(std::move(done)));
    };
    return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
        begin, handler, buffers);
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
      boost::asio::post(_strand, boost::beast::bind_front_handler(
                                     std::move(done), boost::system::error_code(), size));
    };
    return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
        begin, handler, buffers);
  }

  /// Waits for the server to hang up; the owner closes then.
  template <class Handler>
  friend void async_teardown(boost::beast::role_type, GatheringStream& stream, Handler&& handler) {
    stream.ending();
    stream.drain([done = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler))] {
      (*done)(boost::system::error_code());
    });
  }

  friend void beast_close_socket(GatheringStream& stream) { stream._below->close(false); }

private:
  void drain(std::function<void()> done) {
    _below->read(boost::asio::buffer(_waste),
                 Transferred([this, done = std::move(done)](const boost::system::error_code& error,
                                                            std::size_t) mutable {
                   if (error) return done();
                   drain(std::move(done));
                 }));
  }

  executor_type _strand;
  std::unique_ptr<ByteStream> _below;
  std::array<char, 512> _waste;
};

}  // namespace kestrova
