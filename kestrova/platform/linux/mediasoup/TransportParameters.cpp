#include <kestrova/platform/Values.h>
#include <kestrova/platform/linux/mediasoup/RtpParameters.h>
#include <kestrova/platform/linux/mediasoup/TransportParameters.h>

#include <boost/asio/ip/address.hpp>

#include <algorithm>
#include <array>
#include <limits>

namespace kestrova::mediasoup {
namespace {

constexpr std::size_t kMostEntries = 64;

struct Hash {
  std::string_view algorithm;
  std::size_t bytes;
};
/// In the order of preference: what the engine's own certificates use comes first.
constexpr std::array kHashes{Hash{"sha-256", 32}, Hash{"sha-512", 64}, Hash{"sha-384", 48},
                             Hash{"sha-224", 28}, Hash{"sha-1", 20}};

[[noreturn]] void refuse(const std::string& what) {
  throw MediasoupError(what);
}

Value parsed(std::string_view json, const char* what) {
  auto value = parseJson(json);
  if (!value) refuse(std::string(what) + ": not JSON");
  return std::move(*value);
}

/// RFC 8445: "ice-char" is a letter, a digit, "+" or "/". Servers add "-", "_" and "=".
bool isIceText(std::string_view text, std::size_t shortest) {
  return text.size() >= shortest && text.size() <= 256 &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '+' || c == '/' || c == '-' || c == '_' || c == '=';
         });
}

bool isAddress(const std::string& text) {
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(text, error);
  if (!error) return !address.is_unspecified() && text.find('%') == std::string::npos;
  // A name that the engine resolves.
  const bool named = std::any_of(text.begin(), text.end(),
                                 [](char c) { return (c | 32) >= 'a' && (c | 32) <= 'z'; });
  return named && isToken(text) && text.front() != '.' && text.find("..") == std::string::npos;
}

bool isFingerprint(std::string_view value, std::size_t bytes) {
  if (value.size() != bytes * 3 - 1) return false;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (i % 3 == 2 ? c != ':' : !hex) return false;
  }
  return true;
}

IceCandidate parseCandidate(const Value& value) {
  static constexpr std::array kTypes{"host", "srflx", "prflx", "relay"};
  static constexpr std::array kTcpTypes{"active", "passive", "so"};
  const auto& entry = asDictionary(value);
  IceCandidate candidate;
  candidate.foundation = text(entry, "foundation", "");
  if (!isIceText(candidate.foundation, 1) || candidate.foundation.size() > 32)
    refuse("an ICE candidate's foundation is missing or malformed");
  const auto priority = integer(entry, "priority", -1);
  if (priority < 0 || priority > std::numeric_limits<std::uint32_t>::max())
    refuse("an ICE candidate's priority is missing or out of range");
  candidate.priority = static_cast<std::uint32_t>(priority);
  candidate.address = text(entry, "address", text(entry, "ip", ""));
  if (!isAddress(candidate.address)) refuse("an ICE candidate's address is missing or malformed");
  const auto port = integer(entry, "port", -1);
  if (port < 1 || port > 65535) refuse("an ICE candidate's port is missing or out of range");
  candidate.port = static_cast<int>(port);
  candidate.protocol = text(entry, "protocol", "");
  if (candidate.protocol != "udp" && candidate.protocol != "tcp")
    refuse("an ICE candidate's protocol is missing or unknown");
  candidate.type = text(entry, "type", "host");
  if (std::find(kTypes.begin(), kTypes.end(), candidate.type) == kTypes.end())
    refuse("an ICE candidate's type is unknown");
  if (candidate.protocol == "tcp") {
    candidate.tcpType = text(entry, "tcpType", "passive");
    if (std::find(kTcpTypes.begin(), kTcpTypes.end(), candidate.tcpType) == kTcpTypes.end())
      refuse("an ICE candidate's tcpType is unknown");
  }
  return candidate;
}

}  // namespace

IceParameters parseIceParameters(std::string_view json) {
  const auto root = parsed(json, "ICE parameters");
  const auto& entry = asDictionary(root);
  IceParameters result{text(entry, "usernameFragment", ""), text(entry, "password", ""),
                       boolean(entry, "iceLite", false)};
  if (!isIceText(result.usernameFragment, 4) || !isIceText(result.password, 22))
    refuse("ICE parameters: usernameFragment or password is missing or malformed");
  return result;
}

std::vector<IceCandidate> parseIceCandidates(std::string_view json) {
  const auto root = parsed(json, "ICE candidates");
  if (!root.is_array() || root.get_array().size() > kMostEntries)
    refuse("ICE candidates: not a list of a sensible length");
  std::vector<IceCandidate> result;
  for (const auto& value : root.get_array()) result.push_back(parseCandidate(value));
  return result;
}

DtlsParameters parseDtlsParameters(std::string_view json) {
  const auto root = parsed(json, "DTLS parameters");
  const auto* fingerprints = list(asDictionary(root), "fingerprints");
  if (!fingerprints) refuse("DTLS parameters: fingerprints is missing or not a list");
  for (const auto& hash : kHashes)
    for (const auto& value : *fingerprints) {
      const auto& entry = asDictionary(value);
      if (!sameText(text(entry, "algorithm", ""), hash.algorithm)) continue;
      auto fingerprint = text(entry, "value", "");
      if (!isFingerprint(fingerprint, hash.bytes)) refuse("DTLS parameters: malformed fingerprint");
      return {std::string(hash.algorithm), std::move(fingerprint)};
    }
  refuse("DTLS parameters: no fingerprint of a known algorithm");
}

std::vector<IceServer> parseIceServers(std::string_view json) {
  std::vector<IceServer> result;
  if (json.empty()) return result;
  const auto root = parsed(json, "ICE servers");
  if (!root.is_array() || root.get_array().size() > kMostEntries)
    refuse("ICE servers: not a list of a sensible length");
  for (const auto& value : root.get_array()) {
    const auto& entry = asDictionary(value);
    IceServer server{{}, text(entry, "username", ""), text(entry, "credential", "")};
    if (auto single = text(entry, "urls")) server.urls.push_back(*single);
    if (const auto* several = list(entry, "urls"))
      for (const auto& url : *several)
        if (url.is_string()) server.urls.emplace_back(url.get_string());
    const bool fits =
        !server.urls.empty() && std::all_of(server.urls.begin(), server.urls.end(), isVisible);
    if (!fits) refuse("ICE servers: urls is missing or malformed");
    result.push_back(std::move(server));
  }
  return result;
}

RemoteTransport parseTransport(const TransportDetails& details) {
  if (details.id.empty()) refuse("a transport needs an id");
  return {parseIceParameters(details.iceParameters), parseIceCandidates(details.iceCandidates),
          parseDtlsParameters(details.dtlsParameters), parseIceServers(details.iceServers)};
}

}  // namespace kestrova::mediasoup
