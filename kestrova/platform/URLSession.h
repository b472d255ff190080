#pragma once

#include <kestrova/platform/Task.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kestrova {

struct URLRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::chrono::milliseconds timeout{60'000};
  /// In place of a limit on the whole: the time-out is then for the connecting only, and the
  /// transfer fails when for so long nothing at all has come or gone. For bodies of any length.
  std::optional<std::chrono::seconds> stallTimeout{};
};

struct URLResponse {
  int status = 0;
  std::string body;
};

/// No answer at all: no network, refused certificate, time-out, a URL that makes no sense.
/// `what()` names the cause and holds no header and no body.
struct URLError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// HTTP(S) requests. TLS is always verified; `SSL_CERT_FILE` names further authorities.
class URLSession {
public:
  virtual ~URLSession() = default;
  /// Resumes the awaiting coroutine on its own executor. Blocks no queue while it waits.
  /// \throws URLError when there is no response.
  virtual Task<URLResponse> data(URLRequest request) = 0;
};

}  // namespace kestrova
