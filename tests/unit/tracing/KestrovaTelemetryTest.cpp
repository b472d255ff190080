#include <kestrova/tracing/KestrovaTelemetry.h>
#include <kestrova/tracing/TelemetryOutput.h>

#include <gtest/gtest.h>
#include <opentelemetry/trace/provider.h>
#include <opentelemetry/trace/scope.h>

#include "Collector.h"
#include "Exported.h"
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace kestrova {
namespace {

Dictionary enabled(const std::string& endpoint = "https://traces.test/v1/traces") {
  return {{"enabled", true}, {"pbEndPoint", endpoint}};
}

using Attributes = Exported::Attributes;
const std::string rootName = "room_r1_peer_p1_sdk_iOS";

class KestrovaTelemetryTest : public testing::Test {
protected:
  /// No pipeline of a test reaches into the next one.
  ~KestrovaTelemetryTest() override {
    telemetry.reset();
    replacePipeline();
    while (pipelineThreads() > 1) std::this_thread::yield();
  }

  std::shared_ptr<KestrovaTelemetry> make(Dictionary traces, Dictionary metaData = {},
                                          std::shared_ptr<Collector> to = nullptr) {
    return KestrovaTelemetry::make({.roomId = "r1",
                                    .peerId = "p1",
                                    .sdkName = "iOS",
                                    .sdkVersion = "3.2.0",
                                    .observabilityJwt = "opaque token",
                                    .traces = std::move(traces),
                                    .metaData = std::move(metaData),
                                    .platform = Collector::platform(to ? to : collector)});
  }
  static void replacePipeline() {
    KestrovaTelemetry::make(
        {.traces = enabled(), .platform = Collector::platform(std::make_shared<Collector>())});
  }
  /// Lets go of the telemetry and gives all that it has exported.
  Exported finish() {
    telemetry.reset();
    replacePipeline();
    while (pipelineThreads() > 1) std::this_thread::yield();
    return Exported::of(collector->waitFor(0));
  }
  void complete(const std::shared_ptr<TelemetrySpan>& span) {
    telemetry->completeSpan(span, TelemetryStatus::ok(), "", {});
  }

  const std::shared_ptr<Collector> collector = std::make_shared<Collector>();
  std::shared_ptr<KestrovaTelemetry> telemetry;
};

TEST_F(KestrovaTelemetryTest, exportsSpansBelowTheMeetingsRoot) {
  telemetry = make(enabled("https://traces.test/in?k=v"), {{"userId", "u"}, {"email", "e@x.test"}});
  const TelemetryAttribute attributes[] = {{"a", "1"}, {"category", "TELEMETRY"}};
  const auto outer = telemetry->trace("outer", attributes, nullptr);
  const auto inner = telemetry->trace("inner", {}, outer);
  telemetry->traceAutoComplete("point", attributes, outer,
                               TelemetryStatus::error("Error while adding trace."));
  telemetry->completeSpan(inner, TelemetryStatus::error("no answer"), "no answer", {});
  telemetry->completeSpan(outer, TelemetryStatus::ok(), "SUCCESS", attributes);
  const auto failed = telemetry->trace("failed", {}, nullptr);
  telemetry->completeSpan(failed, TelemetryStatus::error("one"), "other", {});
  telemetry->updateRootSpanAttributes("session-9");
  telemetry->updateRootSpanAttributes("never");
  complete(telemetry->trace("late", {}, nullptr));

  const auto all = finish();
  const auto request = collector->waitFor(1)[0];
  EXPECT_EQ(request.url, "https://traces.test/in?k=v");
  EXPECT_EQ(request.headers.at(1).second.find("OTel-OTLP-Exporter-Cpp/"), 0U);
  EXPECT_EQ(request.headers.at(2).second, "opaque token");

  EXPECT_EQ(Exported::attributesOf(all.resource), (Attributes{{"service.name", "kestrova-otel"},
                                                              {"service.version", "3.2.0"},
                                                              {"telemetry.sdk.language", "cpp"},
                                                              {"telemetry.traces", "enabled"}}));
  EXPECT_EQ(all.scope, (Dictionary{{"name", "p1"}}));
  ASSERT_EQ(all.spans.size(), 6U);
  const auto& root = all.spans.at(rootName);
  EXPECT_EQ(Exported::attributesOf(root), (Attributes{{"roomId", "r1"},
                                                      {"peerId", "p1"},
                                                      {"sdkName", "iOS"},
                                                      {"userId", "u"},
                                                      {"email", "e@x.test"},
                                                      {"sessionId", "session-9"}}));
  EXPECT_EQ(all.parent(rootName), "");
  for (const auto* name : {"outer", "failed", "late"})
    EXPECT_EQ(all.parent(name), all.id(rootName));
  for (const auto* name : {"inner", "point"}) EXPECT_EQ(all.parent(name), all.id("outer"));
  EXPECT_EQ(Exported::attributesOf(all.spans.at("outer")),
            (Attributes{{"a", "1"}, {"category", "TELEMETRY"}, {"statusMessage", "SUCCESS"}}));
  EXPECT_EQ(Exported::attributesOf(all.spans.at("inner")), Attributes{}) << "the status says it";
  EXPECT_EQ(Exported::attributesOf(all.spans.at("failed")),
            (Attributes{{"statusMessage", "other"}}));
  EXPECT_EQ(all.status("outer"), "OK");
  EXPECT_EQ(all.status("inner"), "ERROR: no answer");
  EXPECT_EQ(all.status("point"), "ERROR: Error while adding trace.");
  for (const auto& [name, span] : all.spans)
    for (const auto* time : {"startTimeUnixNano", "endTimeUnixNano"}) {
      const auto nanoseconds = text(span, time, "");
      EXPECT_EQ(nanoseconds.substr(nanoseconds.size() - 6), "000000") << name << ' ' << time;
    }
}

TEST_F(KestrovaTelemetryTest, withoutAUsableConfigurationNothingIsExported) {
  const std::vector<Dictionary> table = {
      {},
      {{"pbEndPoint", "https://traces.test/"}},
      {{"enabled", "true"}, {"pbEndPoint", "https://traces.test/"}},
      {{"enabled", 1}, {"pbEndPoint", "https://traces.test/"}},
      {{"enabled", false}, {"pbEndPoint", "https://traces.test/"}},
      {{"enabled", true}},
      {{"enabled", true}, {"pbEndPoint", 7}},
      {{"enabled", true}, {"endPoint", "https://traces.test/"}},
      enabled(""),
      enabled("no url at all"),
  };
  const auto before = pipelineThreads();
  for (const auto& traces : table) {
    telemetry = make(traces);
    EXPECT_EQ(KestrovaTelemetry::activeInstance(), telemetry);
    const auto span = telemetry->trace("x", {}, nullptr);
    EXPECT_EQ(span, nullptr) << boost::json::serialize(traces);
    telemetry->traceAutoComplete("x", {}, span, TelemetryStatus::ok());
    complete(span);
    telemetry->updateRootSpanAttributes("s");
  }
  EXPECT_EQ(pipelineThreads(), before);
}

TEST_F(KestrovaTelemetryTest, whatIsNoTextAboutTheUserIsEmpty) {
  telemetry = make(enabled(), {{"userId", 7}, {"name", "n"}});
  telemetry->updateRootSpanAttributes("No Session ID available!");
  EXPECT_EQ(Exported::attributesOf(finish().spans.at(rootName)),
            (Attributes{{"roomId", "r1"},
                        {"peerId", "p1"},
                        {"sdkName", "iOS"},
                        {"userId", ""},
                        {"email", ""},
                        {"sessionId", "No Session ID available!"}}));
}

TEST_F(KestrovaTelemetryTest, onlySpansLookIntoTheContext) {
  telemetry = make(enabled());
  auto native = opentelemetry::trace::Provider::GetTracerProvider()->GetTracer("app")->StartSpan(
      "application's");
  {
    const opentelemetry::trace::Scope scope(native);
    const auto given = telemetry->trace("given", {}, nullptr);
    complete(telemetry->trace("below given", {}, given));
    complete(given);
    telemetry->traceAutoComplete("event", {}, nullptr, TelemetryStatus::ok());
  }
  native->End();
  telemetry->updateRootSpanAttributes("s");
  const auto all = finish();
  EXPECT_EQ(all.parent("given"), all.id("application's"));
  EXPECT_EQ(all.parent("below given"), all.id("given"));
  EXPECT_EQ(all.parent("event"), all.id(rootName));
}

TEST_F(KestrovaTelemetryTest, aSpanThatIsLetGoOfBeforeItsEndIsNeverExported) {
  telemetry = make(enabled());
  telemetry->trace("abandoned", {}, nullptr).reset();
  const auto twice = telemetry->trace("twice", {}, nullptr);
  complete(twice);
  complete(twice);
  const auto all = finish();
  EXPECT_EQ(all.spans.size(), 1U) << "nor is the root, whose session was never known";
}

TEST_F(KestrovaTelemetryTest, textsThatAreNoUtf8LoseNothingElse) {
  telemetry = make(enabled());
  const TelemetryAttribute attributes[] = {{"k\xff", "caf\xc3\xa9 \xe2\x82"}};
  const auto span = telemetry->trace("bad \xc3(", attributes, nullptr);
  telemetry->completeSpan(span, TelemetryStatus::error("\x80"), "\x80", {});
  testing::internal::CaptureStderr();
  const auto all = finish();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  const auto& exported = all.spans.at("bad \uFFFD(");
  EXPECT_EQ(Exported::attributesOf(exported), (Attributes{{"k\uFFFD", "caf\u00e9 \uFFFD\uFFFD"}}));
  EXPECT_EQ(all.status("bad \uFFFD("), "ERROR: \uFFFD");
}

TEST_F(KestrovaTelemetryTest, theNewestIsActiveForAsLongAsItIsHeld) {
  const auto other = std::make_shared<Collector>();
  telemetry = make(enabled());
  auto newer = make(enabled(), {}, other);
  EXPECT_EQ(KestrovaTelemetry::activeInstance(), newer);
  // What began in the older meeting is completed through the newer, and exported where it began.
  const auto span = telemetry->trace("of the older", {}, nullptr);
  telemetry.reset();
  newer->completeSpan(span, TelemetryStatus::ok(), "", {});
  EXPECT_EQ(Exported::of(collector->waitFor(1)).spans.count("of the older"), 1U);
  newer.reset();
  EXPECT_EQ(KestrovaTelemetry::activeInstance(), nullptr) << "never the older again";
  EXPECT_EQ(other->count(), 0U);
}

TEST_F(KestrovaTelemetryTest, meetingsComeAndGoUnderManyThreads) {
  TelemetryOutput output({.subscribedCategories = {EventCategory::telemetry},
                          .activeTelemetry = KestrovaTelemetry::activeInstance});
  std::atomic<int> running = 3;
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        const auto id = std::to_string(t) + "-" + std::to_string(i);
        output.onSpanStarted({.id = id, .name = id, .category = EventCategory::telemetry});
        output.onEvent({.name = "e", .parentId = id, .category = EventCategory::telemetry});
        if (i % 3 != 0) output.onSpanEnded({.id = id, .name = id});
      }
      --running;
    });
  while (running > 0) {
    auto first = make(enabled());
    auto second = make(enabled());
    first->updateRootSpanAttributes("s");
    output.clearSpanHistory();
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace kestrova
