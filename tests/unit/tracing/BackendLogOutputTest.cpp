#include <kestrova/platform/Farewells.h>
#include <kestrova/tracing/BackendLogOutput.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using enum EventCategory;
using testing::Contains;
using testing::HasSubstr;
using testing::Pair;

class BackendLogOutputTest : public testing::Test {
protected:
  ~BackendLogOutputTest() override { SdkTracer::shared().clearBackendOutput(); }

  std::shared_ptr<BackendLogOutput> make(BackendLogOptions options = {}) {
    options.roomId = "room";
    options.peerId = "me";
    options.sessionId = "session";
    options.modelName = "x86_64";
    options.osVersion = "12.5";
    options.target = [this] { return target; };
    return std::make_shared<BackendLogOutput>(std::move(options));
  }
  std::vector<URLRequest>& requests() { return platform.session->requests; }
  Dictionary lastBody() {
    platform.pump();
    return parseDictionary(requests().back().body);
  }

  TestPlatform platform;
  BackendLogTarget target{
      .endpoint = "https://logs.test/lines?key=1", .token = "log-token", .sdkVersion = "3.2.0"};
};

TEST_F(BackendLogOutputTest, postsALineLetterForLetter) {
  const auto output = make();
  output->onEvent({.name = "It broke",
                   .attributes = {{"error", "why"}, {"peerId", "bob"}, {"roomId", "hall"}},
                   .category = error,
                   .dashboardLog = true});
  EXPECT_TRUE(requests().empty()) << "whoever traces does not wait, and may hold a lock";
  EXPECT_EQ(lastBody(), (Dictionary{{"logText", "It broke"},
                                    {"logType", "ERROR"},
                                    {"attributes",
                                     {{"SDK", "iOS"},
                                      {"SDK_VERSION", "3.2.0"},
                                      {"roomId", "hall"},
                                      {"sessionId", "session"},
                                      {"modelName", "x86_64"},
                                      {"brand", "Apple"},
                                      {"osVersion", "12.5"},
                                      {"error", "why"},
                                      {"peerId", "me"}}},
                                    {"debugMode", true},
                                    {"dashboardLog", true}}));
  const auto& request = requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://logs.test/lines?key=1");
  EXPECT_THAT(request.headers,
              testing::UnorderedElementsAre(Pair("Content-Type", "application/json"),
                                            Pair("Authorization", "log-token")));
  EXPECT_EQ(request.timeout, std::chrono::seconds(60));
}

TEST_F(BackendLogOutputTest, namesTheKindOfALine) {
  const auto output = make();
  const std::vector<std::pair<EventCategory, const char*>> table = {
      {error, "ERROR"}, {backendError, "ERROR"}, {warn, "WARN"}, {telemetry, "INFO"}};
  for (const auto& [category, expected] : table) {
    output->onSpanStarted({.id = "1", .name = "span", .category = category});
    // The tracer leaves what a span ends with as it is.
    output->onSpanEnded(
        {.id = "1", .name = "span", .category = category, .attributes = {{"token", "abcdefghij"}}});
    const auto body = lastBody();
    EXPECT_EQ(text(body, "logType"), expected);
    EXPECT_EQ(text(*dictionary(body, "attributes"), "token"), "abc***hij");
  }
  EXPECT_EQ(requests().size(), table.size()) << "a start is no line";
  const auto quiet = make({.respectsLogLevel = true});
  quiet->setLogLevel(LogLevel::error);
  quiet->onEvent({.name = "warning", .category = warn});
  platform.pump();
  EXPECT_EQ(requests().size(), table.size());
}

TEST_F(BackendLogOutputTest, sendsWhereAndWhenTheServiceSays) {
  const auto output = make();
  for (const auto* nowhere : {"", "no url", "/lines"}) {
    target.endpoint = nowhere;
    output->onEvent({.name = "x", .category = error});
    platform.pump();
    EXPECT_TRUE(requests().empty()) << nowhere;
  }
  target = {.endpoint = "https://elsewhere.test", .token = "renewed"};
  output->onEvent({.name = "x", .category = error});
  platform.pump();
  ASSERT_EQ(requests().size(), 1U);
  EXPECT_EQ(requests()[0].url, "https://elsewhere.test");
  EXPECT_THAT(requests()[0].headers, Contains(Pair("Authorization", "renewed")));
}

TEST_F(BackendLogOutputTest, aLogThatIsOutOfOrderIsToldOnConsolesAndNeverToItself) {
  const auto output = make({.subscribedCategories = {debug, error}});
  SdkTracer::shared().setBackendOutput(output);
  platform.session->fail("connection refused");
  output->onEvent({.name = "x", .category = error});
  platform.pump();
  EXPECT_EQ(requests().size(), 1U) << "nothing is sent again";
  EXPECT_EQ(platform.traces.count("Error while logging: connection refused"), 1);
  EXPECT_EQ(platform.traces.attribute("Error while logging: connection refused", "component"),
            "INFO");
  platform.session->answer("no", 500);
  output->onEvent({.name = "\xff", .category = error});
  output->onEvent({.name = "x", .attributes = {{"k", "\xff"}}, .category = error});
  platform.pump();
  EXPECT_EQ(platform.traces.count("Error while logging: the line is not UTF-8"), 2);
  output->onEvent({.name = "x", .category = error});
  platform.pump();
  EXPECT_EQ(requests().size(), 2U);
  EXPECT_EQ(platform.traces.texts().size(), 3U) << "the answer is not read";
}

TEST_F(BackendLogOutputTest, aLogThatHangsHoldsOnlySoMuch) {
  const auto most = static_cast<std::size_t>(BackendLogOutput::mostUnderWay);
  auto output = make();
  platform.session->withhold();
  const auto speak = [&](std::size_t lines) {
    for (std::size_t i = 0; i < lines; ++i) output->onEvent({.name = "x", .category = error});
    platform.pump();
  };
  speak(most + 6);
  EXPECT_EQ(requests().size(), most);
  EXPECT_FALSE(Farewells::wait(0ms)) << "a program that ends waits a little for what is under way";
  EXPECT_TRUE(platform.traces.texts().empty());
  platform.session->release();
  platform.pump();
  EXPECT_TRUE(Farewells::wait(0ms));
  EXPECT_THAT(platform.traces.texts(),
              testing::ElementsAre("6 log lines left out: too many under way"));
  speak(most);
  EXPECT_EQ(requests().size(), 2 * most) << "every post gives its place back";
  speak(1);
  output.reset();
  platform.pump();
  EXPECT_EQ(requests().size(), 2 * most + 1) << "what was begun is sent";
}

}  // namespace
}  // namespace kestrova::test
