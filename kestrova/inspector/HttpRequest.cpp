#include <kestrova/inspector/HttpRequest.h>

#include <boost/beast/core/flat_static_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>

#include <memory>
#include <utility>

namespace kestrova::inspector {

namespace http = boost::beast::http;

namespace {

constexpr std::size_t longestHead = 8 * 1024;

struct Reading {
  boost::beast::flat_static_buffer<longestHead> buffer;
  http::request_parser<http::empty_body> parser;
};

HttpRequest outcome(const http::request<http::empty_body>& head) {
  HttpRequest request{
      .isGet = head.method() == http::verb::get, .target = std::string(head.target()), .host = {}};
  if (head.count(http::field::host) == 1) request.host = std::string(head[http::field::host]);
  return request;
}

}  // namespace

void readRequest(boost::asio::ip::tcp::socket& socket,
                 std::function<void(std::optional<HttpRequest>)> done) {
  auto reading = std::make_shared<Reading>();
  reading->parser.header_limit(longestHead);
  auto& [buffer, parser] = *reading;
  http::async_read_header(
      socket, buffer, parser,
      [reading, done = std::move(done)](const boost::system::error_code& error, std::size_t) {
        if (error)
          done(std::nullopt);
        else
          done(outcome(reading->parser.get()));
      });
}

std::string httpHead(std::string_view status, std::string_view fields) {
  std::string head = "HTTP/1.1 ";
  head.append(status).append("\r\n").append(fields);
  // The page brings all that it needs, talks to this place only, and is shown by nobody else's.
  head +=
      "Content-Security-Policy: default-src 'none'; connect-src 'self'; script-src "
      "'unsafe-inline'; "
      "style-src 'unsafe-inline'; img-src data: blob:; base-uri 'none'; form-action 'none'; "
      "frame-ancestors 'none'\r\n"
      "Cross-Origin-Resource-Policy: same-origin\r\n"
      "X-Content-Type-Options: nosniff\r\n"
      "Referrer-Policy: no-referrer\r\n"
      "Cache-Control: no-store\r\n"
      "Connection: close\r\n\r\n";
  return head;
}

}  // namespace kestrova::inspector
