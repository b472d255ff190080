#include <kestrova/tracing/KestrovaTelemetry.h>

#include <boost/url/parse.hpp>

#include <exception>
#include <mutex>
#include <utility>

namespace kestrova {
namespace {

struct ActiveInstance {
  std::mutex lock;
  std::weak_ptr<KestrovaTelemetry> telemetry;
};

/// Never destroyed: anything may trace until the process ends.
ActiveInstance& active() {
  static auto& instance = *new ActiveInstance;
  return instance;
}

}  // namespace

std::shared_ptr<KestrovaTelemetry> KestrovaTelemetry::make(KestrovaTelemetryOptions options) {
  std::shared_ptr<KestrovaTelemetry> made(new KestrovaTelemetry(options));
  const std::lock_guard held(active().lock);
  active().telemetry = made;
  return made;
}

std::shared_ptr<KestrovaTelemetry> KestrovaTelemetry::activeInstance() {
  if (tracePipelinesAreOver()) return nullptr;
  const std::lock_guard held(active().lock);
  return active().telemetry.lock();
}

KestrovaTelemetry::KestrovaTelemetry(const KestrovaTelemetryOptions& options)
    : _tracesEnabled(boolean(options.traces, "enabled", false)) {
  try {
    buildPipeline(options);
  } catch (const std::exception&) {
    // A meeting goes on without telemetry.
    _tracer.reset();
  }
}

void KestrovaTelemetry::buildPipeline(const KestrovaTelemetryOptions& options) {
  const auto endpoint = text(options.traces, "pbEndPoint");
  if (!_tracesEnabled || !endpoint || !boost::urls::parse_uri(*endpoint)) return;
  _tracer = makeTracePipeline({.endpoint = *endpoint,
                               .token = options.observabilityJwt,
                               .serviceVersion = options.sdkVersion,
                               .instrumentationName = options.peerId,
                               .platform = options.platform});
  if (!_tracer) return;
  const auto name =
      "room_" + options.roomId + "_peer_" + options.peerId + "_sdk_" + options.sdkName;
  const auto userId = text(options.metaData, "userId", "");
  const auto email = text(options.metaData, "email", "");
  const TelemetryAttribute attributes[] = {{"roomId", options.roomId},
                                           {"peerId", options.peerId},
                                           {"sdkName", options.sdkName},
                                           {"userId", userId},
                                           {"email", email}};
  _rootSpan = _tracer->startSpan(name, attributes, nullptr);
}

std::shared_ptr<TelemetrySpan> KestrovaTelemetry::trace(
    std::string_view spanName, TelemetryAttributes attributes,
    const std::shared_ptr<TelemetrySpan>& span) {
  if (!_tracer) return nullptr;
  return span ? _tracer->startSpan(spanName, attributes, span)
              : _tracer->startSpanInContext(spanName, attributes, _rootSpan);
}

void KestrovaTelemetry::traceAutoComplete(std::string_view spanName, TelemetryAttributes attributes,
                                          const std::shared_ptr<TelemetrySpan>& span,
                                          const TelemetryStatus& status) {
  if (!_tracer) return;
  const auto event = _tracer->startSpan(spanName, attributes, span ? span : _rootSpan);
  if (!event) return;
  event->setStatus(status);
  event->end();
}

void KestrovaTelemetry::completeSpan(const std::shared_ptr<TelemetrySpan>& span,
                                     const TelemetryStatus& status, std::string_view message,
                                     TelemetryAttributes attributes) {
  if (!_tracesEnabled || !span) return;
  span->setStatus(status);
  const bool isSaid = status.code == TelemetryStatus::Code::error && status.description == message;
  if (!isSaid) span->setAttribute("statusMessage", message);
  for (const auto& [key, value] : attributes) span->setAttribute(key, value);
  span->end();
}

void KestrovaTelemetry::updateRootSpanAttributes(const std::string& sessionId) {
  if (!_rootSpan || !_rootSpan->isRecording()) return;
  _rootSpan->setAttribute("sessionId", sessionId);
  _rootSpan->end();
}

}  // namespace kestrova
