#pragma once

#include <kestrova/platform/URLSession.h>

#include <cstddef>
#include <memory>

namespace kestrova {

/// Longest body that is taken; a longer one fails the request.
inline constexpr std::size_t maxResponseBytes = 16 * 1024 * 1024;

/// Requests over libcurl: HTTP/2 where the server offers it, proxies from the environment,
/// redirects for GET only (at most 5, never from https to http), and the authorities that
/// `SSL_CERT_FILE` names beside those of the system.
///
/// Every session's transfers run on one thread of the process, which starts with the first request
/// and is gone when the last session is. Releasing a session fails its pending requests.
std::shared_ptr<URLSession> makeURLSession();

}  // namespace kestrova
