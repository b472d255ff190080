#include <kestrova/platform/NetworkCauses.h>
#include <kestrova/platform/linux/websocket/TcpStream.h>
#include <kestrova/platform/linux/websocket/TlsTrust.h>

#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <openssl/x509_vfy.h>

namespace kestrova {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

class TlsTrust {
public:
  TlsTrust() {
    error_code ignored;  // with no authority at all every certificate is refused
    context.set_default_verify_paths(ignored);
    context.set_verify_mode(asio::ssl::verify_peer);
    SSL_CTX_set_min_proto_version(context.native_handle(), TLS1_2_VERSION);
  }
  asio::ssl::context context{asio::ssl::context::tls_client};
};

std::shared_ptr<TlsTrust> makeTlsTrust() {
  return std::make_shared<TlsTrust>();
}

namespace {

// The lines are chosen by number where this header is not at hand.
static_assert(causes::ofCertificate(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY) ==
              causes::unknownAuthority);
static_assert(causes::ofCertificate(X509_V_ERR_CERT_NOT_YET_VALID) == causes::notYetValid);
static_assert(causes::ofCertificate(X509_V_ERR_CERT_HAS_EXPIRED) == causes::expired);
static_assert(causes::ofCertificate(X509_V_ERR_HOSTNAME_MISMATCH) == causes::wrongHost);
static_assert(causes::ofCertificate(X509_V_ERR_IP_ADDRESS_MISMATCH) == causes::wrongHost);

/// Makes OpenSSL check that the certificate is the endpoint's own; names are sent in clear as SNI.
bool expectHost(SSL* ssl, const WebSocketEndpoint& endpoint) {
  if (endpoint.hostIsAddress)
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), endpoint.host.c_str()) == 1;
  return SSL_set1_host(ssl, endpoint.host.c_str()) == 1 &&
         SSL_set_tlsext_host_name(ssl, endpoint.host.c_str()) == 1;
}

class TlsStream final : public ByteStream {
public:
  TlsStream(const WebSocketStrand& strand, std::shared_ptr<TlsTrust> trust)
      : _trust(std::move(trust)),
        _tls(strand, _trust->context),
        _opener(strand, _tls.next_layer()) {}

  void open(const WebSocketEndpoint& endpoint, Opened done) override {
    if (!expectHost(_tls.native_handle(), endpoint)) {
      asio::post(_tls.get_executor(), [done = std::move(done)] {
        done(asio::error::invalid_argument, "TLS: the use of the host's name");
      });
      return;
    }
    _opener.open(
        endpoint, [this, done = std::move(done)](const error_code& error, const char* step) {
          if (error) return done(error, step);
          _tls.async_handshake(asio::ssl::stream_base::client,
                               [done](error_code failure) { done(failure, "TLS handshake"); });
        });
  }
  void read(asio::mutable_buffer into, Transferred done) override {
    _tls.async_read_some(into, std::move(done));
  }
  void write(asio::const_buffer from, std::function<void()> progress, Transferred done) override {
    asio::async_write(_tls, from, untilAllIsWritten(std::move(progress)), std::move(done));
  }
  void close(bool reset) override { _opener.close(reset); }

  std::string explain(const error_code& error) const override {
    // const_cast: OpenSSL's reader takes const, the stream hands out its handle unconst only.
    const long verdict = SSL_get_verify_result(const_cast<TlsStream*>(this)->_tls.native_handle());
    if (verdict == X509_V_OK) return explainSocket(error);
    const auto known = causes::ofCertificate(verdict);
    if (!known.empty()) return std::string(known);
    return std::string("certificate refused: ") + X509_verify_cert_error_string(verdict);
  }

private:
  const std::shared_ptr<TlsTrust> _trust;
  asio::ssl::stream<tcp::socket> _tls;
  SocketOpener _opener;
};

}  // namespace

std::unique_ptr<ByteStream> makeTlsStream(const WebSocketStrand& strand,
                                          std::shared_ptr<TlsTrust> trust) {
  return std::make_unique<TlsStream>(strand, std::move(trust));
}

}  // namespace kestrova
