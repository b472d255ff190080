#pragma once

#include <kestrova/model/KestrovaError.h>
#include <kestrova/platform/Values.h>

#include <string>
#include <vector>

namespace kestrova {

/// How the service answered a request.
struct ResponseStatus {
  bool ok = false;
  /// What went wrong; empty when nothing did.
  std::string failure;
  /// The same for people: the service's own text where it gave one, without its number.
  std::string cause;
};

/// Judges the answer to any request: good is a "data" dictionary whose "status" reads "ok".
/// \param secrets of the request, which a refusal may quote and nobody may read
ResponseStatus isStatusOK(const Dictionary& response, const std::vector<std::string>& secrets = {});

/// The error of a number that the service sent; UNKNOWN_ERROR for one that the catalogue lacks.
KestrovaError serviceError(std::int64_t code);
/// The text that stands beside such a number: "message", or else "error", or else nothing.
std::string serviceCause(const Dictionary& answer);

}  // namespace kestrova
