#include <kestrova/tracing/TracePipeline.h>

// In place of OtelPipeline.cpp in a build without OpenTelemetry.

namespace kestrova {

bool exportsTraces() {
  return false;
}

std::shared_ptr<TracePipeline> makeTracePipeline(TracePipelineOptions) {
  return nullptr;
}

bool tracePipelinesAreOver() {
  return false;
}

}  // namespace kestrova
