#include <kestrova/signalling/APIManager.h>
#include <kestrova/tracing/Trace.h>

#include <boost/url/parse.hpp>

#include <utility>

namespace kestrova {
namespace {

/// What the application may rely on of an answer.
Dictionary reduce(Value answer) {
  if (!answer.is_object()) return {};
  auto& body = answer.get_object();
  if (const auto* data = dictionary(body, "data"); data && !data->empty()) return *data;
  if (!text(body, "error", "").empty()) return std::move(body);
  return {};
}

void traceFailure(std::string_view cause) {
  traceError([&] { return "Error while getting service configuration: " + std::string(cause); });
}

}  // namespace

Task<Dictionary> APIManager::getServerConfig(std::shared_ptr<URLSession> session,
                                             std::string secret, std::string roomId,
                                             std::optional<std::string> signalingBaseUrl) {
  const std::string url =
      "https://" + signalingBaseUrl.value_or(defaultApiHost) + "/infra/v1/meetings/init-config";
  if (!boost::urls::parse_uri(url)) {
    traceError([&] { return "Invalid signaling URL: " + url; });
    co_return Dictionary();
  }
  const Dictionary body{{"roomId", roomId}};
  URLRequest request{
      .method = "POST",
      .url = url,
      .headers = {{"Authorization", std::move(secret)}, {"Content-Type", "application/json"}},
      .body = jsonText(body).value_or(""),
      .timeout = std::chrono::seconds(60)};
  std::string failure;
  try {
    const URLResponse response = co_await session->data(std::move(request));
    auto answer = parseJson(response.body);
    if (answer) co_return reduce(std::move(*answer));
    failure = "the answer is not JSON";
  } catch (const URLError& error) {
    failure = error.what();
  }
  traceFailure(failure);
  co_return Dictionary();
}

}  // namespace kestrova
