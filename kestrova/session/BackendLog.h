#pragma once

#include <memory>
#include <string>

namespace kestrova {

class TraceOutput;

/// The service's log of one stay in a meeting. Sends where the service's configuration says at the
/// time, and nothing while that names no place.
std::shared_ptr<TraceOutput> makeBackendLog(std::string meetingId, std::string peerId,
                                            std::string sessionId);

}  // namespace kestrova
