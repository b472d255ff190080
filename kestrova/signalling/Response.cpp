#include <kestrova/signalling/Response.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <limits>

namespace kestrova {

ResponseStatus isStatusOK(const Dictionary& response) {
  const auto* data = dictionary(response, "data");
  if (!data) return {false, "Error response: " + jsonText(response).value_or("")};
  if (boost::algorithm::to_lower_copy(text(*data, "status", "")) == "ok") return {true, ""};
  return {false, " [ ErrorCode: " + std::to_string(integer(*data, "errorCode", -1)) +
                     ", Message: " + text(*data, "message", "Unknown error") + " ] "};
}

KestrovaError serviceError(std::int64_t code) {
  const bool fits = code >= 0 && code <= std::numeric_limits<int>::max();
  const auto known = fits ? KestrovaError::fromRawValue(static_cast<int>(code)) : std::nullopt;
  return known.value_or(KestrovaError::UNKNOWN_ERROR);
}

}  // namespace kestrova
