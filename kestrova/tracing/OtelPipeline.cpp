#include <kestrova/platform/Farewells.h>
#include <kestrova/tracing/RoutedTracer.h>
#include <kestrova/tracing/TracePipeline.h>
#include <kestrova/tracing/TracePost.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <opentelemetry/context/runtime_context.h>
#include <opentelemetry/exporters/otlp/otlp_environment.h>
#include <opentelemetry/exporters/otlp/otlp_http_exporter_factory.h>
#include <opentelemetry/exporters/otlp/otlp_http_exporter_options.h>
#include <opentelemetry/exporters/otlp/otlp_recordable_utils.h>
#include <opentelemetry/sdk/common/global_log_handler.h>
#include <opentelemetry/sdk/resource/resource.h>
#include <opentelemetry/sdk/trace/batch_span_processor.h>
#include <opentelemetry/sdk/trace/exporter.h>
#include <opentelemetry/sdk/trace/samplers/always_on.h>
#include <opentelemetry/sdk/trace/samplers/parent.h>
#include <opentelemetry/sdk/trace/tracer_provider.h>
#include <opentelemetry/trace/context.h>
#include <opentelemetry/trace/provider.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

namespace otlp = opentelemetry::exporter::otlp;
namespace sdk = opentelemetry::sdk;
namespace otel = opentelemetry::trace;
using opentelemetry::nostd::string_view;
using Clock = TracePost::Clock;
using Recordables = opentelemetry::nostd::span<std::unique_ptr<sdk::trace::Recordable>>;

constexpr std::size_t maxQueueSize = 2048;
constexpr std::size_t maxBatchSize = 512;
constexpr std::chrono::milliseconds scheduleDelay{5000};
constexpr std::string_view workerQueueName = "BatchWorker Queue";
constexpr std::size_t longestThreadName = 15;

/// How long a pipeline that nobody uses any more tries to get its last spans posted.
constexpr std::chrono::seconds closingPatience{10};
/// The same for the exit of the process, which waits for it.
constexpr std::chrono::milliseconds exitPatience{1000};
/// A wake-up of the processor's thread may get lost: it is woken again after this time.
constexpr std::chrono::milliseconds wakeInterval{100};

string_view view(std::string_view text) {
  return {text.data(), text.size()};
}

/// Text for a protobuf field, which holds UTF-8 only: U+FFFD stands for every byte that is none.
class Utf8Text {
public:
  explicit Utf8Text(std::string_view text) : _text(text) {
    if (isUtf8(text)) return;
    for (std::size_t at = 0; at < text.size();) {
      std::size_t length = 1;
      while (length <= 4 && !isUtf8(text.substr(at, length))) ++length;
      if (length <= 4)
        _mended += text.substr(at, length);
      else
        _mended += "\uFFFD";
      at += length <= 4 ? length : 1;
    }
    _text = _mended;
  }
  Utf8Text(const Utf8Text&) = delete;
  Utf8Text& operator=(const Utf8Text&) = delete;
  operator string_view() const { return view(_text); }

private:
  std::string_view _text;
  std::string _mended;
};

// ---- Encoding and posting ----------------------------------------------------------------------

/// Makes what OpenTelemetry's own exporter collects spans in. That class and the messages are part
/// of its libraries, but their headers are of none of its packages: the one comes by the exporter,
/// which is used for nothing else, the other by its name.
sdk::trace::SpanExporter& recordableMaker() {
  static auto& maker =
      *otlp::OtlpHttpExporterFactory::Create(otlp::OtlpHttpExporterOptions{}).release();
  return maker;
}

std::unique_ptr<google::protobuf::Message> newRequest() {
  const auto* type = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(
      "opentelemetry.proto.collector.trace.v1.ExportTraceServiceRequest");
  const auto* prototype =
      type ? google::protobuf::MessageFactory::generated_factory()->GetPrototype(type) : nullptr;
  return std::unique_ptr<google::protobuf::Message>(prototype ? prototype->New() : nullptr);
}

std::optional<std::string> encoded(const Recordables& spans) {
  using Request = opentelemetry::proto::collector::trace::v1::ExportTraceServiceRequest;
  const auto request = newRequest();
  if (!request) return std::nullopt;
  // A generated message has its base, the only one, at its start.
  otlp::OtlpRecordableUtils::PopulateRequest(spans, reinterpret_cast<Request*>(request.get()));
  std::string body;
  if (!request->SerializeToString(&body)) return std::nullopt;
  return body;
}

/// OpenTelemetry hands spans to the processor's thread through atomics of its own, which the thread
/// sanitizer does not see: it gets to know the order here.
class HandOver {
public:
#ifdef __SANITIZE_THREAD__
  void give() {
    _given.fetch_add(1, std::memory_order_release);
  }
  void take() {
    _given.load(std::memory_order_acquire);
  }

private:
  std::atomic<int> _given{0};
#else
  void give() {}
  void take() {}
#endif
};

/// Posts batches with the library's HTTP session: its trust, its proxies, its threads, and waits
/// that can be ended.
class Exporter final : public sdk::trace::SpanExporter {
public:
  explicit Exporter(std::shared_ptr<TracePost> post) : _post(std::move(post)) {}

  HandOver handOver;

  std::unique_ptr<sdk::trace::Recordable> MakeRecordable() noexcept override {
    return recordableMaker().MakeRecordable();
  }
  sdk::common::ExportResult Export(const Recordables& spans) noexcept override try {
    handOver.take();
    auto body = encoded(spans);
    if (!body)
      RoutedTracer(targetMasks::consoles)
          .debug("Error serializing body: the spans make no message",
                 {.component = ComponentCategory::info});
    return _post->send(std::move(body)) ? sdk::common::ExportResult::kSuccess
                                        : sdk::common::ExportResult::kFailure;
  } catch (const std::exception&) {
    return sdk::common::ExportResult::kFailure;
  }
  bool ForceFlush(std::chrono::microseconds) noexcept override { return true; }
  bool Shutdown(std::chrono::microseconds) noexcept override { return true; }

private:
  const std::shared_ptr<TracePost> _post;
};

/// Set while a span that has not ended is let go of, which OpenTelemetry takes for its end.
thread_local bool isAbandoning = false;

class Processor final : public sdk::trace::BatchSpanProcessor {
public:
  Processor(std::unique_ptr<Exporter> exporter,
            const sdk::trace::BatchSpanProcessorOptions& options)
      : BatchSpanProcessor(std::move(exporter), options),
        _handOver(static_cast<Exporter&>(*exporter_).handOver) {
    const std::string name(workerQueueName.substr(0, longestThreadName));
    pthread_setname_np(worker_thread_.native_handle(), name.c_str());
  }
  void OnEnd(std::unique_ptr<sdk::trace::Recordable>&& span) noexcept override {
    if (isAbandoning) return;
    _handOver.give();
    BatchSpanProcessor::OnEnd(std::move(span));
  }

private:
  HandOver& _handOver;
};

/// With these attributes only, and none of the environment's.
class ServiceResource final : public sdk::resource::Resource {
public:
  explicit ServiceResource(const std::string& version)
      : Resource({{"service.name", "kestrova-otel"},
                  {"service.version", version},
                  {"telemetry.sdk.language", "cpp"},
                  {"telemetry.traces", "enabled"}}) {}
};

// ---- Provider ----------------------------------------------------------------------------------

/// Provider, processor and exporter; outlives its pipeline until the last spans are posted.
class Works {
public:
  explicit Works(const TracePipelineOptions& options)
      : _post(std::make_shared<TracePost>(
            TracePostOptions{.endpoint = options.endpoint,
                             .token = options.token,
                             .userAgent = otlp::GetOtlpDefaultUserAgent(),
                             .platform = options.platform})) {
    sdk::trace::BatchSpanProcessorOptions batches;
    batches.max_queue_size = maxQueueSize;
    batches.schedule_delay_millis = scheduleDelay;
    batches.max_export_batch_size = maxBatchSize;
    auto processor = std::make_unique<Processor>(std::make_unique<Exporter>(_post), batches);
    _processor = processor.get();
    const Utf8Text version(options.serviceVersion);
    const string_view versionText = version;
    auto sampler = std::make_unique<sdk::trace::ParentBasedSampler>(
        std::make_shared<sdk::trace::AlwaysOnSampler>());
    _provider = std::make_shared<sdk::trace::TracerProvider>(
        std::move(processor), ServiceResource(std::string(versionText.data(), versionText.size())),
        std::move(sampler));
  }

  const std::shared_ptr<sdk::trace::TracerProvider>& provider() const { return _provider; }

  /// Has everything posted that has ended, if that is done by `limit`; later nothing is posted.
  void flush(Clock::time_point limit) {
    _post->giveUpAt(limit);
    for (;;) {
      const auto left = limit - Clock::now();
      if (_isClosed || left <= Clock::duration::zero()) return;
      const auto wait = std::min<Clock::duration>(left, wakeInterval);
      if (_processor->ForceFlush(std::chrono::duration_cast<std::chrono::microseconds>(wait)))
        return;
    }
  }

  /// Ends the processor's thread. Returns a few seconds late where a wake-up is lost.
  void close() {
    _isClosed = true;
    _provider->Shutdown();
  }

private:
  const std::shared_ptr<TracePost> _post;
  std::shared_ptr<sdk::trace::TracerProvider> _provider;
  Processor* _processor = nullptr;  // the provider's
  std::atomic<bool> _isClosed{false};
};

class OtelPipeline;

/// The pipelines of the process. Never destroyed: the newest pipeline is in use until the very end.
class Pipelines {
public:
  static Pipelines& shared() {
    static auto& instance = *new Pipelines;
    return instance;
  }

  bool areOver() const { return _areOver; }
  /// Held where OpenTelemetry's own static objects are needed: the exit waits for it, and lets them
  /// go then.
  std::shared_lock<std::shared_mutex> use() { return std::shared_lock(_inUse); }

  void begin(const std::shared_ptr<OtelPipeline>& newest, const std::shared_ptr<Works>& works) {
    Farewells::afterwards([] { shared().endAll(); });
    std::shared_ptr<OtelPipeline> former;
    const std::lock_guard held(_lock);
    former = std::exchange(_newest, newest);
    _all.push_back(works);
    otel::Provider::SetTracerProvider(opentelemetry::nostd::shared_ptr<otel::TracerProvider>(
        std::shared_ptr<otel::TracerProvider>(works->provider())));
  }

  /// Flushes and ends `works` in the background; the exit of the process has flushed them all.
  void close(std::shared_ptr<Works> works) try {
    if (_areOver) return;
    std::thread([this, works = std::move(works)] {
      works->flush(Clock::now() + closingPatience);
      works->close();
      const std::lock_guard held(_lock);
      std::erase(_all, works);
    }).detach();
  } catch (const std::exception&) {
    // No thread to be had: they stay among all, idle.
  }

private:
  /// A fork of the process has none of its threads, and exports nothing.
  Pipelines() {
    pthread_atfork(nullptr, nullptr, [] { shared()._areOver = true; });
  }

  void endAll();

  std::shared_mutex _inUse;
  std::mutex _lock;
  std::shared_ptr<OtelPipeline> _newest;
  std::vector<std::shared_ptr<Works>> _all;
  std::atomic<bool> _areOver{false};
};

/// Each by a thread of its own, which is left where it is if it should come late.
void Pipelines::endAll() {
  struct Flushes {
    std::mutex lock;
    std::condition_variable changed;
    std::size_t left = 0;
  };
  const auto limit = Clock::now() + exitPatience;
  std::vector<std::shared_ptr<Works>> all;
  {
    const std::lock_guard held(_lock);
    all = _all;
  }
  const auto flushes = std::make_shared<Flushes>();
  flushes->left = all.size();
  for (const auto& works : all) {
    auto flush = [works, flushes, limit] {
      works->flush(limit);
      const std::lock_guard held(flushes->lock);
      if (--flushes->left == 0) flushes->changed.notify_all();
    };
    try {
      std::thread(std::move(flush)).detach();
    } catch (const std::exception&) {
      const std::lock_guard held(flushes->lock);
      --flushes->left;
    }
  }
  std::unique_lock held(flushes->lock);
  flushes->changed.wait_until(held, limit + wakeInterval, [&] { return flushes->left == 0; });
  const std::lock_guard nobodyElse(_inUse);
  _areOver = true;
}

// ---- Spans -------------------------------------------------------------------------------------

template <class Time>
Time toMillisecond(Time time) {
  return std::chrono::floor<std::chrono::milliseconds>(time);
}

class AttributeList final : public opentelemetry::common::KeyValueIterable {
public:
  explicit AttributeList(TelemetryAttributes attributes) : _attributes(attributes) {}
  bool ForEachKeyValue(
      opentelemetry::nostd::function_ref<bool(string_view, opentelemetry::common::AttributeValue)>
          take) const noexcept override {
    for (const auto& [key, value] : _attributes)
      if (!take(Utf8Text(key), string_view(Utf8Text(value)))) return false;
    return true;
  }
  std::size_t size() const noexcept override { return _attributes.size(); }

private:
  const TelemetryAttributes _attributes;
};

class OtelSpan final : public TelemetrySpan {
public:
  using Native = opentelemetry::nostd::shared_ptr<otel::Span>;

  OtelSpan(Native native, std::shared_ptr<OtelPipeline> pipeline)
      : _native(std::move(native)), _pipeline(std::move(pipeline)) {}
  ~OtelSpan() override {
    isAbandoning = true;
    _native = Native();
    isAbandoning = false;
  }

  otel::SpanContext context() const { return _native->GetContext(); }

  bool isRecording() const override { return _native->IsRecording(); }
  void setAttribute(std::string_view key, std::string_view value) override {
    _native->SetAttribute(Utf8Text(key), string_view(Utf8Text(value)));
  }
  void setStatus(const TelemetryStatus& status) override {
    using Code = TelemetryStatus::Code;
    const auto code = status.code == Code::ok      ? otel::StatusCode::kOk
                      : status.code == Code::error ? otel::StatusCode::kError
                                                   : otel::StatusCode::kUnset;
    _native->SetStatus(code, Utf8Text(status.description));
  }
  void end() override {
    otel::EndSpanOptions options;
    options.end_steady_time = toMillisecond(std::chrono::steady_clock::now());
    _native->End(options);
    // What has ended needs its pipeline no longer.
    if (!_hasEnded.exchange(true)) _pipeline.reset();
  }

private:
  Native _native;
  std::atomic<bool> _hasEnded{false};
  std::shared_ptr<OtelPipeline> _pipeline;
};

class OtelPipeline final : public TracePipeline, public std::enable_shared_from_this<OtelPipeline> {
public:
  OtelPipeline(std::shared_ptr<Works> works, const std::string& instrumentationName)
      : _works(std::move(works)),
        _tracer(_works->provider()->GetTracer(Utf8Text(instrumentationName))) {}
  ~OtelPipeline() override { Pipelines::shared().close(_works); }

  std::shared_ptr<TelemetrySpan> startSpan(std::string_view name, TelemetryAttributes attributes,
                                           const std::shared_ptr<TelemetrySpan>& parent) override {
    const auto used = Pipelines::shared().use();
    return Pipelines::shared().areOver() ? nullptr : startBelow(name, attributes, parent);
  }

  std::shared_ptr<TelemetrySpan> startSpanInContext(
      std::string_view name, TelemetryAttributes attributes,
      const std::shared_ptr<TelemetrySpan>& otherwise) override {
    const auto used = Pipelines::shared().use();
    if (Pipelines::shared().areOver()) return nullptr;
    const auto value = opentelemetry::context::RuntimeContext::GetValue(otel::kSpanKey);
    const auto* active = opentelemetry::nostd::get_if<OtelSpan::Native>(&value);
    if (!active || !*active || !(*active)->GetContext().IsValid())
      return startBelow(name, attributes, otherwise);
    otel::StartSpanOptions options;
    options.parent = (*active)->GetContext();
    return start(name, attributes, options);
  }

private:
  std::shared_ptr<TelemetrySpan> startBelow(std::string_view name, TelemetryAttributes attributes,
                                            const std::shared_ptr<TelemetrySpan>& parent) {
    otel::StartSpanOptions options;
    if (parent)
      options.parent = static_cast<OtelSpan&>(*parent).context();
    else
      options.parent = opentelemetry::context::Context(otel::kIsRootSpanKey, true);
    return start(name, attributes, options);
  }

  std::shared_ptr<TelemetrySpan> start(std::string_view name, TelemetryAttributes attributes,
                                       otel::StartSpanOptions& options) {
    options.start_system_time = toMillisecond(std::chrono::system_clock::now());
    options.start_steady_time = toMillisecond(std::chrono::steady_clock::now());
    return std::make_shared<OtelSpan>(
        _tracer->StartSpan(Utf8Text(name), AttributeList(attributes), options), shared_from_this());
  }

  const std::shared_ptr<Works> _works;
  const opentelemetry::nostd::shared_ptr<otel::Tracer> _tracer;
};

/// It would write to the application's standard streams; a handler that the application has set
/// itself stays.
void quietenOpenTelemetry() {
  namespace log = sdk::common::internal_log;
  const auto handler = log::GlobalLogHandler::GetLogHandler();
  if (dynamic_cast<log::DefaultLogHandler*>(handler.get()))
    log::GlobalLogHandler::SetLogHandler(
        opentelemetry::nostd::shared_ptr<log::LogHandler>(new log::NoopLogHandler));
}

}  // namespace

bool exportsTraces() {
  return true;
}

std::shared_ptr<TracePipeline> makeTracePipeline(TracePipelineOptions options) {
  if (!options.platform || !options.platform->urlSession || Pipelines::shared().areOver())
    return nullptr;
  quietenOpenTelemetry();
  // Before the exit's work is registered, so that what they use outlives it.
  opentelemetry::context::RuntimeContext::GetCurrent();
  otel::Provider::GetTracerProvider();
  auto works = std::make_shared<Works>(options);
  auto pipeline = std::make_shared<OtelPipeline>(works, options.instrumentationName);
  Pipelines::shared().begin(pipeline, works);
  return pipeline;
}

bool tracePipelinesAreOver() {
  return Pipelines::shared().areOver();
}

}  // namespace kestrova
