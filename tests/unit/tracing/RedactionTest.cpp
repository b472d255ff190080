#include <kestrova/tracing/Redaction.h>

#include <gtest/gtest.h>

#include <string>

namespace kestrova {
namespace {

struct Pair {
  std::string key;
  std::string value;
  std::string hidden;
  std::string open;
};

TEST(RedactionTest, hidesSecretsAndDropsNoise) {
  const Redaction redaction(RedactionKeys::defaults(), {});
  const std::vector<Pair> table = {
      {"Token", "abcdefghij", "abc***hij", "abcdefghij"},
      {"tokenId", "abcdefghij", "abcdefghij", "abcdefghij"},
      {"id", "12345678", "[REDACTED]", "12345678"},
      {"id", "123456789", "123***789", "123456789"},
      {"secret", "", "[REDACTED]", ""},
      {"jwt", "äöüäöüäöü", "äöü***äöü", "äöüäöüäöü"},
      {"name", R"({"token":"abcdefghijkl"})", R"({"token":"abc***jkl"})",
       R"({"token":"abcdefghijkl"})"},
      // The escape is undone before the secrets are looked for.
      {"name", R"({"tok\u0065n":"abcdefghijkl"})", R"({"token":"abc***jkl"})",
       R"({"token":"abcdefghijkl"})"},
      {"log", R"(said "ID" : "abcdefghijkl", "Secret":"x" "id":"")",
       R"(said "ID" : "abc***jkl", "Secret":"[REDACTED]" "id":"")",
       R"(said "ID" : "abcdefghijkl", "Secret":"x" "id":"")"},
      {"log", R"("id":"unfinished)", R"("id":"unfinished)", R"("id":"unfinished)"},
      {"log", R"("id)", R"("id)", R"("id)"},
      {"log", R"("tokens":"abcdefghijkl", "id": 123456789)",
       R"("tokens":"abcdefghijkl", "id": 123456789)",
       R"("tokens":"abcdefghijkl", "id": 123456789)"},
      {"payload", R"( [{"TransportId":"t","a":[{"method":1,"b":{"producerId":{},"c":2}}]}] )",
       R"([{"a":[{"b":{"c":2}}]}])", R"([{"a":[{"b":{"c":2}}]}])"},
      {"payload", R"({"transportId":"t")", R"({"transportId":"t")", R"({"transportId":"t")"},
      {"payload", R"({not json})", R"({not json})", R"({not json})"},
      {"payload", "{", "{", "{"},
  };
  for (const auto& row : table) {
    const TraceAttributes given = {{row.key, row.value}, {"ConsumerId", "dropped"}};
    EXPECT_EQ(redaction.redactIfNeeded(given, false), (TraceAttributes{{row.key, row.hidden}}))
        << row.value;
    EXPECT_EQ(redaction.redactIfNeeded(given, true), (TraceAttributes{{row.key, row.open}}))
        << row.value;
  }
}

TEST(RedactionTest, followsTheMode) {
  const auto expect = [](const RedactionConfig& config, const char* value, const char* expected) {
    EXPECT_EQ(redacted(value, config), expected) << value;
  };
  expect({.mode = RedactionMode::full}, "abcdefghijklmnop", "[REDACTED]");
  expect({.mode = RedactionMode::partial}, "abcdef", "[REDACTED]");
  expect({.mode = RedactionMode::partial}, "abcdefg", "abc***efg");
  expect({.mode = RedactionMode::partial, .visibleChars = 0, .mask = "#"}, "a", "#");
  expect({.mode = RedactionMode::partial, .visibleChars = 0}, "", "[REDACTED]");
  expect({.mode = RedactionMode::partial, .visibleChars = ~std::size_t{0}}, "abc", "[REDACTED]");
  expect({.visibleChars = 6}, "abcdefghij", "[REDACTED]");
  expect({.autoThreshold = 0}, "abcdefg", "abc***efg");
}

TEST(RedactionTest, survivesLongAndDeepInput) {
  const Redaction redaction(std::make_shared<RedactionKeys>(std::set<std::string>{"token", "k.y"},
                                                            std::set<std::string>{"method"}),
                            {});
  const std::string secret(1 << 20, 's');
  const auto result =
      redaction.redactSensitivePatterns(R"({"token":")" + secret + R"(","key":")" + secret + "\"}");
  EXPECT_EQ(result, R"({"token":"sss***sss","key":"sss***sss"})");
  const auto deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_EQ(redaction.removeNestedKeysIfJSONString(deep), deep);
  const auto nested = [](const std::string& inner) {
    return std::string(100, '[') + inner + std::string(100, ']');
  };
  EXPECT_EQ(redaction.removeNestedKeysIfJSONString(nested(R"({"method":1})")), nested("{}"));
}

}  // namespace
}  // namespace kestrova
