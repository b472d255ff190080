#include <kestrova/session/BackendLog.h>
#include <kestrova/signalling/DeviceInfo.h>
#include <kestrova/signalling/SDKConfiguration.h>
#include <kestrova/tracing/BackendLogOutput.h>

#include <utility>

namespace kestrova {

std::shared_ptr<TraceOutput> makeBackendLog(std::string meetingId, std::string peerId,
                                            std::string sessionId) {
  return std::make_shared<BackendLogOutput>(
      BackendLogOptions{.roomId = std::move(meetingId),
                        .peerId = std::move(peerId),
                        .sessionId = std::move(sessionId),
                        .privateKeys = {"value"},  // what is kept in the realtime store
                        .modelName = DeviceInfo::modelCode(),
                        .osVersion = DeviceInfo::osVersion(),
                        .target = [] {
                          const auto& configuration = SDKConfiguration::shared();
                          return BackendLogTarget{.endpoint = configuration.logsEndpoint(),
                                                  .token = configuration.jwtKey(),
                                                  .sdkVersion = configuration.sdkVersion()};
                        }});
}

}  // namespace kestrova
