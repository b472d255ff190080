#pragma once

#include <kestrova/tracing/TraceValue.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace kestrova {

/// How a span of the telemetry service ended.
struct TelemetryStatus {
  enum class Code { unset, ok, error };

  Code code = Code::unset;
  /// Of an error.
  std::string description{};

  static TelemetryStatus ok() { return {.code = Code::ok}; }
  static TelemetryStatus error(std::string description) {
    return {.code = Code::error, .description = std::move(description)};
  }
};

struct TelemetryAttribute {
  std::string_view key;
  std::string_view value;
};
/// Refers to its texts: for use within one call.
using TelemetryAttributes = std::span<const TelemetryAttribute>;

/// A span that a telemetry service hears of once it has ended. Let go of before that, it is never
/// exported. Any thread.
class TelemetrySpan {
public:
  virtual ~TelemetrySpan() = default;
  /// Nothing changes any more once it has ended.
  virtual bool isRecording() const = 0;
  virtual void setAttribute(std::string_view key, std::string_view value) = 0;
  virtual void setStatus(const TelemetryStatus& status) = 0;
  virtual void end() = 0;
};

/// Makes and completes the spans of one meeting; see `KestrovaTelemetry`. Any thread. Nothing
/// throws, and the caller never learns whether the export worked.
class Telemetry {
public:
  virtual ~Telemetry() = default;
  /// Starts a span below `span`, if there is one.
  /// \returns nothing where nothing is exported
  virtual std::shared_ptr<TelemetrySpan> trace(std::string_view spanName,
                                               TelemetryAttributes attributes,
                                               const std::shared_ptr<TelemetrySpan>& span) = 0;
  /// A span that starts and ends at once.
  virtual void traceAutoComplete(std::string_view spanName, TelemetryAttributes attributes,
                                 const std::shared_ptr<TelemetrySpan>& span,
                                 const TelemetryStatus& status) = 0;
  virtual void completeSpan(const std::shared_ptr<TelemetrySpan>& span,
                            const TelemetryStatus& status, std::string_view message,
                            TelemetryAttributes attributes) = 0;
};

}  // namespace kestrova
