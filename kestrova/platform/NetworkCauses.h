#pragma once

#include <string_view>

namespace kestrova::causes {

// Why a connection was not made, as people read it. The HTTP session and the sockets say the same.

inline constexpr std::string_view refused = "connection refused";
inline constexpr std::string_view unreachable = "the host can't be reached from here";
inline constexpr std::string_view timedOut = "timed out";
inline constexpr std::string_view unknownHost = "the host's name is not known";
inline constexpr std::string_view lookUpFailed = "the host's name can't be looked up at the moment";
inline constexpr std::string_view closed = "the server closed the connection";

inline constexpr std::string_view unknownAuthority =
    "certificate signed by an unknown authority: is SSL_CERT_FILE set?";
inline constexpr std::string_view expired = "certificate has expired";
inline constexpr std::string_view notYetValid =
    "certificate is not valid yet: is this machine's clock right?";
inline constexpr std::string_view wrongHost = "certificate is made out to another host name";

/// What OpenSSL says of a certificate (its `X509_V_ERR_` numbers, which are part of its interface);
/// empty for what has no line of its own here.
constexpr std::string_view ofCertificate(long verdict) {
  switch (verdict) {
    case 2:   // UNABLE_TO_GET_ISSUER_CERT
    case 18:  // DEPTH_ZERO_SELF_SIGNED_CERT
    case 19:  // SELF_SIGNED_CERT_IN_CHAIN
    case 20:  // UNABLE_TO_GET_ISSUER_CERT_LOCALLY
    case 21:  // UNABLE_TO_VERIFY_LEAF_SIGNATURE
      return unknownAuthority;
    case 9:
      return notYetValid;
    case 10:
      return expired;
    case 62:  // HOSTNAME_MISMATCH
    case 64:  // IP_ADDRESS_MISMATCH
      return wrongHost;
    default:
      return {};
  }
}

}  // namespace kestrova::causes
