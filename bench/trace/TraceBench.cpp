#include <kestrova/tracing/ConsoleOutput.h>
#include <kestrova/tracing/InspectorOutput.h>
#include <kestrova/tracing/SdkTracer.h>

#include <benchmark/benchmark.h>
#ifdef KESTROVA_BENCH_SPDLOG
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#endif

#include <memory>
#include <string>

// Compare with emptyLoop of the same run: what an event for nobody adds to a hot path. The line of
// a console stands beside the same line of spdlog, where that is installed; both end in `swallow`.

namespace kestrova {
namespace {

class Discard : public TraceOutput {
public:
  explicit Discard(bool seesSecrets) : _seesSecrets(seesSecrets) {}
  EventCategories subscribedCategories() const override { return {EventCategory::telemetry}; }
  bool canAccessSensitiveData() const override { return _seesSecrets; }
  bool respectsLogLevel() const override { return false; }
  int outputBit() const override { return 0; }
  void onSpanStarted(const SpanStart& span) override { benchmark::DoNotOptimize(&span); }
  void onSpanEnded(const SpanEnd& span) override { benchmark::DoNotOptimize(&span); }
  void onEvent(const TraceEvent& event) override { benchmark::DoNotOptimize(&event); }
  void setLogLevel(LogLevel) override {}

private:
  bool _seesSecrets;
};

const std::string peerId = "5f0c1e2a-8f4b-4a52-9f60-0d6a5b7c8d9e";

void emptyLoop(benchmark::State& state) {
  for (auto _ : state) benchmark::ClobberMemory();
}
BENCHMARK(emptyLoop);

void untakenEvent(benchmark::State& state) {
  for (auto _ : state) {
    traceEvent("Frame received", {.attributes = {{"peerId", peerId}, {"bytes", 1200}}});
    benchmark::ClobberMemory();
  }
}
BENCHMARK(untakenEvent);

void untakenBareEvent(benchmark::State& state) {
  for (auto _ : state) {
    traceEvent("Frame received");
    benchmark::ClobberMemory();
  }
}
BENCHMARK(untakenBareEvent);

void untakenSpan(benchmark::State& state) {
  for (auto _ : state) {
    const auto span = startSpan("Consuming Remote Track", {.attributes = {{"peerId", peerId}}});
    endSpan(span);
  }
}
BENCHMARK(untakenSpan);

void takenEvent(benchmark::State& state) {
  SdkTracer tracer;
  tracer.registerOutput(std::make_shared<Discard>(state.range(0) == 0));
  const std::string payload =
      R"({"peerId":"p","token":"eyJhbGciOiJIUzI1NiJ9.x.y","data":{"transportId":"t","n":[1,2,3]}})";
  for (auto _ : state)
    tracer.traceEvent("Request",
                      {.attributes = {{"id", peerId}, {"bytes", 1200}, {"payload", payload}},
                       .category = EventCategory::telemetry});
}
BENCHMARK(takenEvent)->ArgName("redacted")->Arg(0)->Arg(1);

void takenSpan(benchmark::State& state) {
  SdkTracer tracer;
  tracer.registerOutput(std::make_shared<Discard>(false));
  for (auto _ : state) {
    const auto span = tracer.startSpan(
        "Consuming Remote Track",
        {.attributes = {{"peerId", peerId}}, .category = EventCategory::telemetry});
    tracer.endSpan(span);
  }
}
BENCHMARK(takenSpan);

void swallow(std::string_view line) {
  auto size = line.size();
  benchmark::DoNotOptimize(size);
}

void consoleEvent(benchmark::State& state) {
  SdkTracer tracer;
  tracer.registerOutput(std::make_shared<ClientConsoleOutput>(ConsoleOutputOptions{
      .tag = "Kestrova",
      .subscribedCategories = {EventCategory::telemetry},
      .logger = ConsoleLogger([](LogType, std::string_view line) { swallow(line); })}));
  for (auto _ : state)
    tracer.traceEvent("Frame received", {.attributes = {{"bytes", 1200}, {"peerId", peerId}},
                                         .category = EventCategory::telemetry});
}
BENCHMARK(consoleEvent);

#ifdef KESTROVA_BENCH_SPDLOG
class Swallowing : public spdlog::sinks::base_sink<std::mutex> {
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    swallow({line.data(), line.size()});
  }
  void flush_() override {}
};

void spdlogEvent(benchmark::State& state) {
  spdlog::logger logger("Kestrova", std::make_shared<Swallowing>());
  logger.set_pattern("%n: %v");
  for (auto _ : state)
    logger.info("⚡ [{}] Frame received {{ bytes: {}, peerId: {} }}", "MEETING", 1200, peerId);
}
BENCHMARK(spdlogEvent);
#endif

void inspectedEvent(benchmark::State& state) {
  SdkTracer tracer;
  tracer.registerOutput(std::make_shared<InspectorOutput>());
  for (auto _ : state)
    tracer.traceEvent("Frame received", {.attributes = {{"bytes", 1200}, {"peerId", peerId}}});
}
BENCHMARK(inspectedEvent);

}  // namespace
}  // namespace kestrova

BENCHMARK_MAIN();
