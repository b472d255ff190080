#include <kestrova/platform/linux/websocket/WebSocketState.h>

namespace kestrova {

namespace websocket = boost::beast::websocket;
using boost::system::error_code;

namespace {

// What stays reserved for reading; a rare long message gives its memory back.
constexpr std::size_t keptBytes = 256 * 1024;

}  // namespace

WebSocketStream::WebSocketStream(const WebSocketStrand& strand, std::unique_ptr<ByteStream> below,
                                 std::size_t maxIncomingBytes, Hooks hooks)
    : _state(std::make_unique<State>(strand, std::move(below))) {
  _state->stream.read_message_max(maxIncomingBytes);
  _state->stream.next_layer().wake = std::move(hooks.wake);
  _state->stream.next_layer().ending = std::move(hooks.ending);
}

WebSocketStream::~WebSocketStream() = default;

ByteStream& WebSocketStream::below() {
  return _state->stream.next_layer().below();
}

std::string& WebSocketStream::gathered() {
  return _state->stream.next_layer().gathered;
}

void WebSocketStream::read(Done done) {
  _state->stream.async_read(
      _state->incoming, [done = std::move(done)](error_code error, std::size_t) { done(error); });
}

std::string_view WebSocketStream::message() const {
  const auto data = _state->incoming.cdata();
  return {static_cast<const char*>(data.data()), data.size()};
}

bool WebSocketStream::isText() const {
  return _state->stream.got_text();
}

void WebSocketStream::release() {
  _state->incoming.clear();
  if (_state->incoming.capacity() > keptBytes) _state->incoming.shrink_to_fit();
}

bool WebSocketStream::isClose(const error_code& error) {
  return error == websocket::error::closed;
}

std::uint16_t WebSocketStream::closeCode() const {
  const auto code = _state->stream.reason().code;
  if (code == websocket::close_code::none) return websocket::close_code::no_status;
  return code;
}

}  // namespace kestrova
