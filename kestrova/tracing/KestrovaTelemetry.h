#pragma once

#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Values.h>
#include <kestrova/tracing/Telemetry.h>
#include <kestrova/tracing/TracePipeline.h>

#include <memory>
#include <string>
#include <string_view>

namespace kestrova {

/// What one meeting's telemetry is made with.
struct KestrovaTelemetryOptions {
  std::string roomId;
  std::string peerId;
  std::string sdkName;
  std::string sdkVersion;
  /// The credential for the telemetry service.
  std::string observabilityJwt;
  /// "enabled" and "pbEndPoint" as the service has configured them.
  Dictionary traces;
  /// "userId" and "email", for the meeting's root span.
  Dictionary metaData;
  std::shared_ptr<const Platform> platform = Platform::current();
};

/// The telemetry of one meeting, from its join on: spans below a root span, exported over OTLP.
/// Where the service wants none, or names no URL, every operation does nothing.
///
/// The newest one is the process's active telemetry for as long as its owner holds it.
class KestrovaTelemetry final : public Telemetry {
public:
  static std::shared_ptr<KestrovaTelemetry> make(KestrovaTelemetryOptions options);
  /// The newest one, unless its owner let it go.
  static std::shared_ptr<KestrovaTelemetry> activeInstance();

  /// Also looks for a parent in OpenTelemetry's own context, behind `span` and before the root
  /// span.
  std::shared_ptr<TelemetrySpan> trace(std::string_view spanName, TelemetryAttributes attributes,
                                       const std::shared_ptr<TelemetrySpan>& span) override;
  void traceAutoComplete(std::string_view spanName, TelemetryAttributes attributes,
                         const std::shared_ptr<TelemetrySpan>& span,
                         const TelemetryStatus& status) override;
  /// `message` goes along as an attribute, unless the status says it already.
  void completeSpan(const std::shared_ptr<TelemetrySpan>& span, const TelemetryStatus& status,
                    std::string_view message, TelemetryAttributes attributes) override;
  /// Ends the root span, once: the session is known, or it is known that there is none.
  void updateRootSpanAttributes(const std::string& sessionId);

private:
  explicit KestrovaTelemetry(const KestrovaTelemetryOptions& options);
  void buildPipeline(const KestrovaTelemetryOptions& options);

  const bool _tracesEnabled;
  std::shared_ptr<TracePipeline> _tracer;  // nothing when none was built
  std::shared_ptr<TelemetrySpan> _rootSpan;
};

}  // namespace kestrova
