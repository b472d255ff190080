#include <kestrova/platform/linux/websocket/WebSocketEndpoint.h>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <system_error>

namespace kestrova {
namespace {

constexpr std::string_view unreservedMarks = "-._~";
// What RFC 3986 allows in a path beyond the unreserved; '%' is there since a path may come encoded.
constexpr std::string_view pathMarks = "-._~/%!$&'()*+,;=:@";

bool isAlphanumeric(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

void appendEncoded(std::string& out, std::string_view text, std::string_view allowedMarks) {
  constexpr char digits[] = "0123456789ABCDEF";
  for (const char c : text) {
    if (isAlphanumeric(c) || allowedMarks.find(c) != std::string_view::npos) {
      out += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += '%';
    out += digits[byte >> 4];
    out += digits[byte & 15];
  }
}

bool isHostName(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return isAlphanumeric(c) || c == '-' || c == '.' || c == '_';
  });
}

}  // namespace

std::string makeTarget(const std::string& path, std::string_view query,
                       const std::vector<std::pair<std::string, std::string>>& parameters) {
  std::string target;
  if (path.empty() || path.front() != '/') target += '/';
  appendEncoded(target, path, pathMarks);
  if (target.back() != '/') target += '/';
  target.append("?").append(query);
  for (const auto& [key, value] : parameters) {
    target += '&';
    appendEncoded(target, key, unreservedMarks);
    target += '=';
    appendEncoded(target, value, unreservedMarks);
  }
  return target;
}

std::optional<WebSocketEndpoint> WebSocketEndpoint::make(const std::string& url) {
  const auto parsed = boost::urls::parse_uri(url);
  if (!parsed) return std::nullopt;
  const auto& view = *parsed;

  WebSocketEndpoint endpoint;
  const std::string scheme(view.scheme());
  auto is = [&](std::string_view name) {
    return std::equal(scheme.begin(), scheme.end(), name.begin(), name.end(),
                      [](char a, char b) { return (a | 0x20) == b; });
  };
  endpoint.secure = is("https") || is("wss");
  if (!endpoint.secure && !is("http") && !is("ws")) return std::nullopt;

  endpoint.host = view.host_address();
  switch (view.host_type()) {
    case boost::urls::host_type::ipv4:
    case boost::urls::host_type::ipv6:
      endpoint.hostIsAddress = true;
      break;
    case boost::urls::host_type::name:
      if (!isHostName(endpoint.host)) return std::nullopt;
      break;
    default:
      return std::nullopt;
  }

  endpoint.authority = std::string(view.encoded_host());
  endpoint.port = endpoint.secure ? "443" : "80";
  if (view.has_port() && !view.port().empty()) {
    const std::string digits(view.port());
    std::uint16_t number = 0;
    const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (read.ec != std::errc() || number == 0) return std::nullopt;
    const auto given = std::to_string(number);
    if (given != endpoint.port) endpoint.authority += ":" + given;
    endpoint.port = given;
  }
  endpoint.target = view.encoded_path().empty() ? "/" : std::string(view.encoded_path());
  if (view.has_query()) endpoint.target.append("?").append(std::string(view.encoded_query()));
  return endpoint;
}

}  // namespace kestrova
