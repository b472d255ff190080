#include <kestrova/platform/NetworkCauses.h>
#include <kestrova/platform/linux/http/CurlLoop.h>
#include <kestrova/platform/linux/http/CurlSession.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <utility>

namespace kestrova {
namespace {

constexpr long maxRedirects = 5;

bool isToken(std::string_view text) {
  // RFC 9110, section 5.6.2.
  constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           marks.find(c) != std::string_view::npos;
  });
}

bool isFieldValue(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

bool isSecure(std::string_view url) {
  constexpr std::string_view scheme = "https:";
  return url.size() > scheme.size() &&
         std::equal(scheme.begin(), scheme.end(), url.begin(),
                    [](char a, char b) { return a == (b >= 'A' && b <= 'Z' ? b + 32 : b); });
}

}  // namespace

CurlTransfer::CurlTransfer(std::uint64_t owner, URLRequest request, Done done)
    : _owner(owner),
      _request(std::move(request)),
      _done(std::move(done)),
      _handle(curl_easy_init()) {}

CurlTransfer::~CurlTransfer() {
  if (_handle) curl_easy_cleanup(_handle);
  curl_slist_free_all(_headers);
}

std::string CurlTransfer::prepare() {
  if (!_handle) return "out of memory";
  if (!isToken(_request.method)) return "the method makes no sense";
  if (_request.url.find('\0') != std::string::npos) return "the URL makes no sense";
  if (auto trouble = applyHeaders(); !trouble.empty()) return trouble;

  const long long timeout =
      std::clamp<long long>(_request.timeout.count(), 1, std::numeric_limits<int>::max());
  curl_easy_setopt(_handle, CURLOPT_PRIVATE, this);
  curl_easy_setopt(_handle, CURLOPT_ERRORBUFFER, _trouble);
  curl_easy_setopt(_handle, CURLOPT_NOSIGNAL, 1L);
  // A name look-up that hangs must not hold up whoever releases the session.
  curl_easy_setopt(_handle, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(_handle, CURLOPT_URL, _request.url.c_str());
  curl_easy_setopt(_handle, CURLOPT_PROTOCOLS_STR, "http,https");
  if (_request.stallTimeout) {
    curl_easy_setopt(_handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout));
    curl_easy_setopt(_handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(_handle, CURLOPT_LOW_SPEED_TIME,
                     static_cast<long>(_request.stallTimeout->count()));
  } else {
    curl_easy_setopt(_handle, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout));
  }
  curl_easy_setopt(_handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(_handle, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(_handle, CURLOPT_USERAGENT, "KestrovaRTC");
  curl_easy_setopt(_handle, CURLOPT_WRITEFUNCTION, &CurlTransfer::receive);
  curl_easy_setopt(_handle, CURLOPT_WRITEDATA, this);
  applyMethod();
  applyTrust();
  return {};
}

std::string CurlTransfer::applyHeaders() {
  auto append = [this](const std::string& line) {
    auto* longer = curl_slist_append(_headers, line.c_str());
    if (longer) _headers = longer;
    return longer != nullptr;
  };
  // Waiting for "100 Continue" costs a round trip, and a second with servers that never say it.
  if (!append("Expect:")) return "out of memory";
  for (const auto& [name, value] : _request.headers) {
    if (!isToken(name) || !isFieldValue(value)) return "a header makes no sense";
    // libcurl takes "name:" as the wish to leave the header out and "name;" for an empty one.
    if (!append(value.empty() ? name + ";" : name + ": " + value)) return "out of memory";
  }
  curl_easy_setopt(_handle, CURLOPT_HTTPHEADER, _headers);
  return {};
}

void CurlTransfer::applyMethod() {
  const auto& method = _request.method;
  const bool plainGet = method == "GET" && _request.body.empty();
  if (method == "HEAD") {
    curl_easy_setopt(_handle, CURLOPT_NOBODY, 1L);
  } else if (method == "POST" || !_request.body.empty()) {
    curl_easy_setopt(_handle, CURLOPT_POST, 1L);
    curl_easy_setopt(_handle, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(_request.body.size()));
    curl_easy_setopt(_handle, CURLOPT_POSTFIELDS, _request.body.data());
  }
  if (method != "HEAD" && method != "POST" && !plainGet)
    curl_easy_setopt(_handle, CURLOPT_CUSTOMREQUEST, method.c_str());
  if (method != "GET") return;
  curl_easy_setopt(_handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(_handle, CURLOPT_MAXREDIRS, maxRedirects);
  curl_easy_setopt(_handle, CURLOPT_REDIR_PROTOCOLS_STR,
                   isSecure(_request.url) ? "https" : "http,https");
}

/// libcurl itself reads neither variable; the system's folder of authorities stays in use.
void CurlTransfer::applyTrust() {
  if (const char* file = std::getenv("SSL_CERT_FILE"); file && *file)
    curl_easy_setopt(_handle, CURLOPT_CAINFO, file);
  if (const char* folder = std::getenv("SSL_CERT_DIR"); folder && *folder)
    curl_easy_setopt(_handle, CURLOPT_CAPATH, folder);
}

std::size_t CurlTransfer::receive(char* data, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<CurlTransfer*>(self);
  auto& body = transfer._response.body;
  const std::size_t bytes = size * count;
  if (bytes > maxResponseBytes - body.size()) {
    transfer._tooLong = true;
    return CURL_WRITEFUNC_ERROR;
  }
  body.append(data, bytes);
  return bytes;
}

void CurlTransfer::finish(CURLcode code) {
  if (_tooLong)
    return fail("the response is longer than " + std::to_string(maxResponseBytes) + " bytes");
  if (code != CURLE_OK) return fail(explain(code));
  long status = 0;
  curl_easy_getinfo(_handle, CURLINFO_RESPONSE_CODE, &status);
  _response.status = static_cast<int>(status);
  _done(std::move(_response));
}

/// libcurl's own words only where there is no line for the cause.
std::string CurlTransfer::explain(CURLcode code) const {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return std::string(causes::unknownHost);
    case CURLE_OPERATION_TIMEDOUT:
      return std::string(causes::timedOut) + " after " + std::to_string(_request.timeout.count()) +
             " ms";
    case CURLE_COULDNT_CONNECT: {
      long number = 0;
      curl_easy_getinfo(_handle, CURLINFO_OS_ERRNO, &number);
      if (number == ECONNREFUSED) return std::string(causes::refused);
      if (number == EHOSTUNREACH || number == ENETUNREACH) return std::string(causes::unreachable);
      break;
    }
    case CURLE_PEER_FAILED_VERIFICATION: {
      long verdict = 0;
      curl_easy_getinfo(_handle, CURLINFO_SSL_VERIFYRESULT, &verdict);
      // libcurl compares the names itself, after OpenSSL has found nothing amiss in the handshake
      // and before it notes that verdict, which reads "unspecified" until then.
      if (verdict == 0 || verdict == 1) return std::string(causes::wrongHost);
      if (const auto known = causes::ofCertificate(verdict); !known.empty())
        return std::string(known);
      break;
    }
    case CURLE_SSL_CACERT_BADFILE:
      return "the file of authorities can't be read: is SSL_CERT_FILE right?";
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      return std::string(causes::closed) + " without an answer";
    case CURLE_SSL_CONNECT_ERROR:
      return std::string("TLS handshake failed: ") + _trouble;
    default:
      break;
  }
  return *_trouble ? _trouble : curl_easy_strerror(code);
}

void CurlTransfer::fail(const std::string& reason) {
  _done(URLError(reason));
}

}  // namespace kestrova
