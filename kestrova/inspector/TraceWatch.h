#pragma once

#include <kestrova/inspector/Inbox.h>
#include <kestrova/tracing/InspectorOutput.h>

#include <memory>

namespace kestrova::inspector {

/// Puts what the library traces into the inbox while it lives, on whichever thread traces. Secrets
/// are redacted before they come here.
class TraceWatch {
public:
  explicit TraceWatch(const std::shared_ptr<Inbox>& inbox);
  ~TraceWatch();
  TraceWatch(const TraceWatch&) = delete;
  TraceWatch& operator=(const TraceWatch&) = delete;

private:
  const std::shared_ptr<InspectorListener> _listener;
  const std::shared_ptr<InspectorOutput> _output;
};

}  // namespace kestrova::inspector
