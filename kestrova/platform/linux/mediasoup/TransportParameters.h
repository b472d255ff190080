#pragma once

#include <kestrova/platform/Mediasoup.h>

#include <string>
#include <string_view>
#include <vector>

/// What a media server says of its side of a transport, read and checked.
namespace kestrova::mediasoup {

struct IceParameters {
  std::string usernameFragment;
  std::string password;
  bool lite = false;
};

struct IceCandidate {
  std::string foundation;
  std::uint32_t priority = 0;
  std::string address;
  int port = 0;
  std::string protocol;  ///< "udp" or "tcp"
  std::string type;      ///< "host", "srflx", "prflx" or "relay"
  std::string tcpType;   ///< empty for UDP
};

struct DtlsParameters {
  std::string algorithm;
  std::string fingerprint;
};

struct IceServer {
  std::vector<std::string> urls;
  std::string username;
  std::string credential;
};

/// \throws MediasoupError, each
IceParameters parseIceParameters(std::string_view json);
std::vector<IceCandidate> parseIceCandidates(std::string_view json);
/// The strongest of the fingerprints that the engine knows.
DtlsParameters parseDtlsParameters(std::string_view json);
/// An empty text gives none.
std::vector<IceServer> parseIceServers(std::string_view json);

/// Everything of one transport.
struct RemoteTransport {
  IceParameters ice;
  std::vector<IceCandidate> candidates;
  DtlsParameters dtls;
  std::vector<IceServer> iceServers;
};
/// \throws MediasoupError
RemoteTransport parseTransport(const TransportDetails& details);

}  // namespace kestrova::mediasoup
