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

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// What the library adds to a span: ours through TelemetryOutput, KestrovaTelemetry and the
// pipeline, alone straight through OpenTelemetry with the same attributes, processor and encoding.
// Both encode on a thread of their own, for a service that takes everything. Figures are those of
// the calling thread; compare the medians of one run:
//
//   bench_telemetry --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true

namespace kestrova {
namespace {

namespace otlp = opentelemetry::exporter::otlp;
namespace sdk = opentelemetry::sdk;

const TraceAttributes attributes = {{"component", "MEETING"},
                                    {"id", "5f0c1e2a-8f4b-4a52-9f60-0d6a5b7c8d9e"},
                                    {"kind", "video"},
                                    {"peerId", "p1"}};
const std::string name = "Starting Video Stream transmission";

class TakesAll final : public URLSession {
public:
  Task<URLResponse> data(URLRequest) override { co_return URLResponse{.status = 200}; }
};

class Discard final : public sdk::trace::SpanExporter {
public:
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
    return sdk::common::ExportResult::kSuccess;
  }
  bool ForceFlush(std::chrono::microseconds) noexcept override { return true; }
  bool Shutdown(std::chrono::microseconds) noexcept override { return true; }

private:
  std::unique_ptr<sdk::trace::SpanExporter> _maker =
      otlp::OtlpHttpExporterFactory::Create(otlp::OtlpHttpExporterOptions{});
};

void alone(benchmark::State& state) {
  namespace log = sdk::common::internal_log;
  log::GlobalLogHandler::SetLogHandler(
      opentelemetry::nostd::shared_ptr<log::LogHandler>(new log::NoopLogHandler));
  sdk::trace::TracerProvider provider(std::make_unique<sdk::trace::BatchSpanProcessor>(
      std::make_unique<Discard>(), sdk::trace::BatchSpanProcessorOptions{}));
  const auto tracer = provider.GetTracer("p1");
  const auto root = tracer->StartSpan("root");
  for (auto _ : state) {
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
  }
}
BENCHMARK(alone);

void ours(benchmark::State& state) {
  const auto telemetry = KestrovaTelemetry::make(
      {.roomId = "r1",
       .peerId = "p1",
       .traces = {{"enabled", true}, {"pbEndPoint", "https://traces.test/"}},
       .platform = std::make_shared<const Platform>(Platform{
           .background = Runtime::background(), .urlSession = std::make_shared<TakesAll>()})});
  TelemetryOutput output({.subscribedCategories = {EventCategory::telemetry},
                          .activeTelemetry = KestrovaTelemetry::activeInstance});
  // As the tracer hands them over: made anew for every span, which is not measured here.
  std::vector<SpanStart> starts;
  std::vector<SpanEnd> ends;
  for (int i = 0; i < 1000; ++i) {
    const auto id = "5f0c1e2a-8f4b-4a52-9f60-0d6a5b7c" + std::to_string(1000 + i);
    starts.push_back(
        {.id = id, .name = name, .attributes = attributes, .category = EventCategory::telemetry});
    ends.push_back({.id = id, .name = name});
  }
  std::size_t at = 0;
  for (auto _ : state) {
    output.onSpanStarted(starts[at]);
    output.onSpanEnded(ends[at]);
    at = (at + 1) % starts.size();
  }
}
BENCHMARK(ours);

}  // namespace
}  // namespace kestrova

BENCHMARK_MAIN();
