#pragma once

#include <kestrova/platform/linux/websocket/ByteStream.h>
#include <kestrova/platform/linux/websocket/WebSocketEndpoint.h>

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrova {

/// The WebSocket protocol over bytes: what Boost.Beast does for us, behind plain functions.
///
/// For the strand. Handlers are called on it, never from within the call that takes them, and must
/// keep the stream alive. Frames are written by the owner: see `gathered`.
class WebSocketStream {
public:
  using Done = std::function<void(const boost::system::error_code&)>;

  /// Called in the middle of an operation.
  struct Hooks {
    std::function<void()> wake;    ///< `gathered` has something to be sent
    std::function<void()> ending;  ///< it is over; the server is waited for to hang up
  };

  WebSocketStream(const WebSocketStrand& strand, std::unique_ptr<ByteStream> below,
                  std::size_t maxIncomingBytes, Hooks hooks);
  ~WebSocketStream();

  ByteStream& below();
  /// What is to be written below, in order; whole frames may be added.
  std::string& gathered();

  void upgrade(const WebSocketEndpoint& endpoint,
               const std::vector<std::pair<std::string, std::string>>& headers, Done done);
  /// The HTTP status of the answer when the upgrade was refused.
  static bool wasRefused(const boost::system::error_code& error);
  unsigned status() const;

  /// Reads one message, which stays until `release`.
  void read(Done done);
  std::string_view message() const;
  bool isText() const;
  void release();

  /// \param answered called in the middle of a read when the server has read all that went before
  void ping(std::function<void()> answered, Done done);
  /// Sends the close frame and reads until the server's.
  void close(std::uint16_t code, Done done);
  /// Whether `error` is the server's close frame, and the code in it; 1005 where there was none.
  static bool isClose(const boost::system::error_code& error);
  std::uint16_t closeCode() const;

private:
  struct State;
  std::unique_ptr<State> _state;
};

}  // namespace kestrova
