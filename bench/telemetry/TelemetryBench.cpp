#include <kestrova/platform/Runtime.h>
#include <kestrova/tracing/KestrovaTelemetry.h>
#include <kestrova/tracing/TelemetryOutput.h>

#include <benchmark/benchmark.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <opentelemetry/exporters/otlp/otlp_http_exporter_factory.h>
#include <opentelemetry/exporters/otlp/otlp_http_exporter_options.h>
#include <opentelemetry/exporters/otlp/otlp_recordable_utils.h>
#include <opentelemetry/sdk/common/global_log_handler.h>
#include <opentelemetry/sdk/trace/batch_span_processor.h>
#include <opentelemetry/sdk/trace/exporter.h>
#include <opentelemetry/sdk/trace/tracer_provider.h>
#include <time.h>

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// What the library adds to a span: ours through TelemetryOutput, KestrovaTelemetry and the
// pipeline, alone straight through OpenTelemetry with the same attributes, processor and encoding,
// for a service that takes everything. A batch of spans is timed, by the calling thread's own
// clock, then its export by the processor's thread is waited for, so that no span is dropped. Times
// are those of one span; compare the medians of one run:
//
//   bench_telemetry --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true

namespace kestrova {
namespace {

namespace otlp = opentelemetry::exporter::otlp;
namespace sdk = opentelemetry::sdk;

const TraceAttributes attributes = {{"component", "MEETING"},
                                    {"id", "5f0c1e2a-8f4b-4a52-9f60-0d6a5b7c8d9e"},
                                    {"kind", "video"},
                                    {"peerId", "p1"}};
const std::string name = "Starting Video Stream transmission";

constexpr int batchSize = 512;

/// What has been exported, as a count of batches.
class Batches {
public:
  void note() {
    const std::lock_guard held(_lock);
    ++_count;
    _changed.notify_all();
  }
  void waitFor(int count) {
    std::unique_lock held(_lock);
    _changed.wait(held, [&] { return _count >= count; });
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  int _count = 0;
};

double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

template <class MakeSpan>
void run(benchmark::State& state, Batches& batches, MakeSpan makeSpan) {
  int exported = 0;
  for (auto _ : state) {
    const auto start = threadSeconds();
    for (int i = 0; i < batchSize; ++i) makeSpan();
    state.SetIterationTime((threadSeconds() - start) / batchSize);
    batches.waitFor(++exported);
  }
}

class TakesAll final : public URLSession {
public:
  explicit TakesAll(Batches& batches) : _batches(batches) {}
  Task<URLResponse> data(URLRequest) override {
    _batches.note();
    co_return URLResponse{.status = 200};
  }

private:
  Batches& _batches;
};

class Discard final : public sdk::trace::SpanExporter {
public:
  explicit Discard(Batches& batches) : _batches(batches) {}
  std::unique_ptr<sdk::trace::Recordable> MakeRecordable() noexcept override {
    return _maker->MakeRecordable();
  }
  sdk::common::ExportResult Export(
      const opentelemetry::nostd::span<std::unique_ptr<sdk::trace::Recordable>>& spans) noexcept
      override {
    using namespace google::protobuf;
    using Request = opentelemetry::proto::collector::trace::v1::ExportTraceServiceRequest;
    const auto* type = DescriptorPool::generated_pool()->FindMessageTypeByName(
        "opentelemetry.proto.collector.trace.v1.ExportTraceServiceRequest");
    const std::unique_ptr<Message> message(
        MessageFactory::generated_factory()->GetPrototype(type)->New());
    otlp::OtlpRecordableUtils::PopulateRequest(spans, reinterpret_cast<Request*>(message.get()));
    benchmark::DoNotOptimize(message->SerializeAsString());
    _batches.note();
    return sdk::common::ExportResult::kSuccess;
  }
  bool ForceFlush(std::chrono::microseconds) noexcept override { return true; }
  bool Shutdown(std::chrono::microseconds) noexcept override { return true; }

private:
  Batches& _batches;
  std::unique_ptr<sdk::trace::SpanExporter> _maker =
      otlp::OtlpHttpExporterFactory::Create(otlp::OtlpHttpExporterOptions{});
};

void alone(benchmark::State& state) {
  namespace log = sdk::common::internal_log;
  log::GlobalLogHandler::SetLogHandler(
      opentelemetry::nostd::shared_ptr<log::LogHandler>(new log::NoopLogHandler));
  Batches batches;
  sdk::trace::TracerProvider provider(std::make_unique<sdk::trace::BatchSpanProcessor>(
      std::make_unique<Discard>(batches), sdk::trace::BatchSpanProcessorOptions{}));
  const auto tracer = provider.GetTracer("p1");
  const auto root = tracer->StartSpan("root");
  run(state, batches, [&] {
    opentelemetry::trace::StartSpanOptions options;
    options.parent = root->GetContext();
    std::array<std::pair<opentelemetry::nostd::string_view, opentelemetry::common::AttributeValue>,
               5>
        list;
    auto next = list.begin();
    for (const auto& [key, value] : attributes) *next++ = {key, value.c_str()};
    *next = {"category", "TELEMETRY"};
    const auto span = tracer->StartSpan(name, list, options);
    span->SetStatus(opentelemetry::trace::StatusCode::kOk);
    span->SetAttribute("statusMessage", "");
    span->End();
  });
}
BENCHMARK(alone)->UseManualTime()->Iterations(40);

void ours(benchmark::State& state) {
  auto& batches = *new Batches;  // the pipeline outlives the run
  const auto telemetry = KestrovaTelemetry::make(
      {.roomId = "r1",
       .peerId = "p1",
       .traces = {{"enabled", true}, {"pbEndPoint", "https://traces.test/"}},
       .platform = std::make_shared<const Platform>(
           Platform{.background = Runtime::background(),
                    .urlSession = std::make_shared<TakesAll>(batches)})});
  TelemetryOutput output({.subscribedCategories = {EventCategory::telemetry},
                          .activeTelemetry = KestrovaTelemetry::activeInstance});
  // The tracer has just made what it hands over, which is not measured here: it is in the caches.
  std::vector<std::string> ids;
  for (int i = 0; i < 1000; ++i)
    ids.push_back("5f0c1e2a-8f4b-4a52-9f60-0d6a5b7c" + std::to_string(1000 + i));
  SpanStart start{.name = name, .attributes = attributes, .category = EventCategory::telemetry};
  SpanEnd end{.name = name};
  std::size_t at = 0;
  run(state, batches, [&] {
    start.id = end.id = ids[at];
    output.onSpanStarted(start);
    output.onSpanEnded(end);
    at = (at + 1) % ids.size();
  });
}
BENCHMARK(ours)->UseManualTime()->Iterations(40);

}  // namespace
}  // namespace kestrova

BENCHMARK_MAIN();
