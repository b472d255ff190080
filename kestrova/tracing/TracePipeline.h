#pragma once

#include <kestrova/platform/Platform.h>
#include <kestrova/tracing/Telemetry.h>

#include <memory>
#include <string>
#include <string_view>

namespace kestrova {

struct TracePipelineOptions {
  /// Posted to exactly as given.
  std::string endpoint;
  /// The credential, sent as it stands.
  std::string token;
  std::string serviceVersion;
  std::string instrumentationName;
  /// Its session carries the posts.
  std::shared_ptr<const Platform> platform;
};

/// The way of one meeting's spans to a telemetry service. Any thread; what ended is posted every
/// five seconds, and in batches when there is much of it, by a thread of the pipeline's own.
///
/// The newest pipeline lives until the next one is made, an older one as long as somebody holds it
/// or a span of it that has not ended. What it still has is posted in the background then. The
/// process's exit posts what there is, too, within a second.
class TracePipeline {
public:
  virtual ~TracePipeline() = default;
  /// Starts a span below `parent`; a new trace without one. Nothing while the process exits.
  virtual std::shared_ptr<TelemetrySpan> startSpan(
      std::string_view name, TelemetryAttributes attributes,
      const std::shared_ptr<TelemetrySpan>& parent) = 0;
  /// Starts a span below the one that the calling thread has made OpenTelemetry's active span, else
  /// below `otherwise`.
  virtual std::shared_ptr<TelemetrySpan> startSpanInContext(
      std::string_view name, TelemetryAttributes attributes,
      const std::shared_ptr<TelemetrySpan>& otherwise) = 0;
};

/// Whether this build can export traces at all.
bool exportsTraces();

/// \returns nothing where it can't
/// \throws std::exception when the machine has no means for another pipeline
std::shared_ptr<TracePipeline> makeTracePipeline(TracePipelineOptions options);

/// Whether the process exits, so that nothing is exported any more.
bool tracePipelinesAreOver();

}  // namespace kestrova
