#include <kestrova/model/Secrets.h>
#include <kestrova/signalling/APIManager.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <boost/url/parse.hpp>

#include <utility>

namespace kestrova {
namespace {

std::string withStatus(int status) {
  return " (HTTP status " + std::to_string(status) + ")";
}

/// What the application may rely on of an answer.
ServerConfig reduce(Value answer, int status) {
  if (answer.is_object()) {
    auto& body = answer.get_object();
    if (const auto* data = dictionary(body, "data"); data && !data->empty()) {
      const bool isUsable = !text(*data, "baseUrl", "").empty();
      return {*data, isUsable ? "" : "the service named no signalling server"};
    }
    if (!text(body, "error", "").empty()) {
      auto cause = serviceCause(body);
      return {std::move(body), std::move(cause)};
    }
  }
  return {{}, "the service's answer says nothing of this meeting" + withStatus(status)};
}

void traceFailure(std::string_view cause) {
  traceError([&] { return "Error while getting service configuration: " + std::string(cause); });
}

}  // namespace

Task<ServerConfig> APIManager::getServerConfig(std::shared_ptr<URLSession> session,
                                               std::string secret, std::string roomId,
                                               std::optional<std::string> signalingBaseUrl) {
  const std::string url =
      "https://" + signalingBaseUrl.value_or(defaultApiHost) + "/infra/v1/meetings/init-config";
  if (!boost::urls::parse_uri(url)) {
    traceError([&] { return "Invalid signaling URL: " + addressWithoutSecrets(url); });
    co_return ServerConfig{{}, "the service's address makes no URL"};
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
    if (answer) co_return reduce(std::move(*answer), response.status);
    failure = "the service's answer is not JSON" + withStatus(response.status);
  } catch (const URLError& error) {
    failure = error.what();
  }
  traceFailure(failure);
  co_return ServerConfig{{}, std::move(failure)};
}

}  // namespace kestrova
