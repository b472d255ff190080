#include <kestrova/platform/Values.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kestrova {
namespace {

TEST(ValuesTest, readersGiveTheDefaultForRubbish) {
  const Dictionary rubbish{{"null", nullptr}, {"text", "5"},     {"number", 5},
                           {"flag", true},    {"list", List{5}}, {"object", Dictionary()}};
  for (const auto& [key, value] : rubbish) {
    EXPECT_EQ(text(rubbish, key, "-"), value.is_string() ? "5" : "-");
    EXPECT_EQ(integer(rubbish, key, -1), value.is_int64() ? 5 : -1);
    EXPECT_EQ(boolean(rubbish, key, false), value.is_bool());
    EXPECT_EQ(list(rubbish, key) != nullptr, value.is_array());
    EXPECT_EQ(dictionary(rubbish, key) != nullptr, value.is_object());
  }
  EXPECT_FALSE(text(rubbish, "missing"));
  EXPECT_TRUE(asDictionary(Value(5)).empty());
}

TEST(ValuesTest, onlyWholeNumbersThatFitAreIntegers) {
  const std::pair<Value, std::optional<std::int64_t>> rows[] = {
      {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::min()},
      {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::max()},
      {std::numeric_limits<std::uint64_t>::max(), std::nullopt},
      {3.0, 3},
      {-0.0, 0},
      {3.5, std::nullopt},
      {9007199254740992.0, 9007199254740992},
      {1e300, std::nullopt},
      {-1e300, std::nullopt},
      {NAN, std::nullopt},
      {INFINITY, std::nullopt}};
  for (const auto& [value, expected] : rows)
    EXPECT_EQ(integer(Dictionary{{"n", value}}, "n"), expected) << value;
  // A number of the other kind that would fit.
  EXPECT_EQ(integer(Dictionary{{"n", std::uint64_t{7}}}, "n"), 7);
}

TEST(ValuesTest, parsesNothingButBoundedUtf8Json) {
  for (const char* json : {"", "{", "{}x", "nul", "\"\xff\"", "{\"a\":01}", "[1,]"})
    EXPECT_FALSE(parseJson(json)) << json;
  const auto nested = [](int depth) {
    return std::string(static_cast<std::size_t>(depth), '[') +
           std::string(static_cast<std::size_t>(depth), ']');
  };
  EXPECT_TRUE(parseJson(nested(20)));
  EXPECT_FALSE(parseJson(nested(100'000)));
  EXPECT_TRUE(parseDictionary("[1]").empty());
}

TEST(ValuesTest, encodableMeansFiniteAndUtf8AtEveryDepth) {
  const std::pair<Value, bool> rows[] = {
      {Dictionary{{"a", List{1, "\xc3\xa9", nullptr, false, 0.5}}}, true},
      {Dictionary{{"a", {{"b", List{NAN}}}}}, false},
      {List{-INFINITY}, false},
      {List{"\xed\xa0\x80"}, false},
      {Dictionary{{"\x80", 1}}, false}};
  for (const auto& [value, good] : rows) {
    EXPECT_EQ(isJsonEncodable(value), good);
    EXPECT_EQ(jsonText(value).has_value(), good);
  }
  Value deep = 1;
  for (int i = 0; i < 2'000; ++i) deep = List{std::move(deep)};
  EXPECT_TRUE(isJsonEncodable(deep));
}

}  // namespace
}  // namespace kestrova
