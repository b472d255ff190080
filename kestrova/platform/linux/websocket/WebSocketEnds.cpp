#include <kestrova/platform/linux/websocket/WebSocketState.h>

// The beginning and the end of a connection: what runs once in each.
namespace kestrova {

namespace websocket = boost::beast::websocket;
using boost::system::error_code;

void WebSocketStream::upgrade(const WebSocketEndpoint& endpoint,
                              const std::vector<std::pair<std::string, std::string>>& headers,
                              Done done) {
  _state->stream.set_option(
      websocket::stream_base::decorator([headers](websocket::request_type& request) {
        request.set(boost::beast::http::field::user_agent, "KestrovaRTC");
        for (const auto& [name, value] : headers) request.set(name, value);
      }));
  _state->stream.async_handshake(_state->answer, endpoint.authority, endpoint.target,
                                 std::move(done));
}

bool WebSocketStream::wasRefused(const error_code& error) {
  return error == websocket::error::upgrade_declined;
}

unsigned WebSocketStream::status() const {
  return _state->answer.result_int();
}

void WebSocketStream::ping(std::function<void()> answered, Done done) {
  _state->stream.control_callback(
      [answered = std::move(answered)](websocket::frame_type kind, boost::beast::string_view) {
        if (kind == websocket::frame_type::pong) answered();
      });
  _state->stream.async_ping({}, std::move(done));
}

void WebSocketStream::close(std::uint16_t code, Done done) {
  _state->stream.async_close(websocket::close_reason(code), std::move(done));
}

}  // namespace kestrova
