#include <kestrova/realtime/PubSubEndpointStore.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

std::optional<std::string> PubSubEndpointStore::pubSubUrl() const {
  std::scoped_lock held(_lock);
  return _pubSubUrl;
}

void PubSubEndpointStore::update(std::optional<std::string> pubSubUrl) {
  std::scoped_lock held(_lock);
  _pubSubUrl = std::move(pubSubUrl);
}

void PubSubEndpointStore::clear() {
  update(std::nullopt);
  SdkTracer::shared().traceEvent("[PubSubV2] Endpoint: cleared",
                                 {.category = EventCategory::realtime});
}

}  // namespace kestrova
