#include <kestrova/model/Secrets.h>
#include <kestrova/signalling/Response.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <limits>

namespace kestrova {
namespace {

std::string unansweredCause(const Dictionary& response) {
  if (const auto marker = text(response, "ACK_STATUS"))
    return *marker == "disconnected" ? "the connection was lost before the service answered"
                                     : "timed out: the service did not answer";
  return response.empty() ? "the request could not be sent" : "the service's answer makes no sense";
}

}  // namespace

ResponseStatus isStatusOK(const Dictionary& response) {
  const auto* data = dictionary(response, "data");
  if (!data)
    return {false, "Error response: " + textWithoutSecrets(jsonText(response).value_or("")),
            unansweredCause(response)};
  if (boost::algorithm::to_lower_copy(text(*data, "status", "")) == "ok") return {true, "", ""};
  return {false,
          " [ ErrorCode: " + std::to_string(integer(*data, "errorCode", -1)) +
              ", Message: " + textWithoutSecrets(text(*data, "message", "Unknown error")) + " ] ",
          text(*data, "message", "the service refused without a reason")};
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
