#pragma once

#include <kestrova/tracing/SdkTracer.h>

#include <string>
#include <string_view>

namespace kestrova {

/// A line on topic messages, for the developers of the library.
inline void traceRealtime(std::string_view text, TraceAttributeList attributes = {}) {
  SdkTracer::shared().traceEvent([&] { return "[PubSubV2] " + std::string(text); },
                                 {.attributes = attributes});
}

}  // namespace kestrova
