#pragma once

#include <kestrova/platform/linux/websocket/GatheringStream.h>
#include <kestrova/platform/linux/websocket/WebSocketStream.h>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>

namespace kestrova {

/// One type of stream for the process; each of the files that include this compiles a part of it.
struct WebSocketStream::State {
  State(const WebSocketStrand& strand, std::unique_ptr<ByteStream> below)
      : stream(strand, std::move(below)) {}

  boost::beast::websocket::stream<GatheringStream, false> stream;
  boost::beast::websocket::response_type answer;
  boost::beast::flat_buffer incoming;
};

}  // namespace kestrova
