#include <kestrova/model/Secrets.h>
#include <kestrova/signalling/Response.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <limits>
#include <utility>

namespace kestrova {
namespace {

std::string unansweredCause(const Dictionary& response) {
  if (const auto marker = text(response, "ACK_STATUS"))
    return *marker == "disconnected" ? "the connection was lost before the service answered"
                                     : "timed out: the service did not answer";
  return response.empty() ? "the request could not be sent" : "the service's answer makes no sense";
}

}  // namespace

ResponseStatus isStatusOK(const Dictionary& response, const std::vector<std::string>& secrets) {
  const auto readable = [&](std::string text) {
    return textWithoutSecrets(textWithout(secrets, std::move(text)));
  };
  const auto* data = dictionary(response, "data");
  if (!data)
    return {false, "Error response: " + readable(jsonText(response).value_or("")),
            unansweredCause(response)};
  if (boost::algorithm::to_lower_copy(text(*data, "status", "")) == "ok") return {true, "", ""};
  const auto message = text(*data, "message");
  return {false,
          " [ ErrorCode: " + std::to_string(integer(*data, "errorCode", -1)) +
              ", Message: " + readable(message.value_or("Unknown error")) + " ] ",
          readable(message.value_or("the service refused without a reason"))};
}

std::string serviceCause(const Dictionary& answer) {
  auto cause = text(answer, "message", "");
  return cause.empty() ? text(answer, "error", "") : cause;
}

KestrovaError serviceError(std::int64_t code) {
  const bool fits = code >= 0 && code <= std::numeric_limits<int>::max();
  const auto known = fits ? KestrovaError::fromRawValue(static_cast<int>(code)) : std::nullopt;
  return known.value_or(KestrovaError::UNKNOWN_ERROR);
}

}  // namespace kestrova
