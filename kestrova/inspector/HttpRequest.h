#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova::inspector {

/// The head of a request, as far as anybody looks at it.
struct HttpRequest {
  bool isGet = false;
  std::string target;
  std::string host;  ///< empty unless the request names exactly one
};

/// Reads one head, of at most 8 kB. Whatever follows it stays unread.
/// \param socket must stay until `done` was called
/// \param done gets nothing when what came is no request, or the other side has gone
void readRequest(boost::asio::ip::tcp::socket& socket,
                 std::function<void(std::optional<HttpRequest>)> done);

/// The head of an answer, after which the connection closes.
/// \param status such as "404 Not Found" \param fields whole lines, each with its end
std::string httpHead(std::string_view status, std::string_view fields = {});

}  // namespace kestrova::inspector
