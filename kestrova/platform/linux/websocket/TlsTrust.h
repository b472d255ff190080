#pragma once

#include <memory>

namespace kestrova {

/// The certificate authorities to trust: the system's, or those that SSL_CERT_FILE and
/// SSL_CERT_DIR name. TLS 1.2 is the least. Reading them takes milliseconds, so one object serves
/// many connections, at the same time, too.
class TlsTrust;
std::shared_ptr<TlsTrust> makeTlsTrust();

}  // namespace kestrova
