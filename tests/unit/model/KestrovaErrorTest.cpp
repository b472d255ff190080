#include <kestrova/model/KestrovaError.h>

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

namespace kestrova {
namespace {

TEST(KestrovaErrorTest, knowsTheCatalogueAndItsGaps) {
  EXPECT_EQ(KestrovaError::knownErrorNames().size(), 151U);
  for (const auto& [code, name] : KestrovaError::knownErrorNames()) {
    const auto error = KestrovaError::fromRawValue(code);
    ASSERT_TRUE(error) << code;
    EXPECT_EQ(error->constantName(), name);
    EXPECT_EQ(error->message().find("Server Error") == 0, code == 4000) << code;
  }
  for (int code : {-1, 0, 3007, 3010, 3036, 3043, 3045, 3046, 3076, 4060, 4064, 4090, 5008, 5014,
                   5016, 1 << 30})
    EXPECT_FALSE(KestrovaError::fromRawValue(code)) << code;
}

TEST(KestrovaErrorTest, keepsTheTextsThatApplicationsMatchOn) {
  const std::vector<std::tuple<KestrovaError, int, std::string, std::string>> table = {
      {KestrovaError::UNKNOWN_ERROR, 4000, "UNKNOWN_ERROR",
       "Server Error: UNKNOWN_ERROR | Code: 4000"},
      {KestrovaError::MAX_PARTCIPANT_REACHED, 4009, "MAX_PARTCIPANT_REACHED",
       "You have reached max partcipant limit in a meeting. To increase contact us."},
      {KestrovaError::STOP_COMPPOSITE_RECORDING_FAILED, 4040, "STOP_COMPPOSITE_RECORDING_FAILED",
       "Composite recording stop request failed due to an unknown error."},
      {KestrovaError::ERROR_GET_DISPLAY_MEDIA, 3013, "ERROR_GET_DISPLAY_MEDIA",
       "Screen sharing is not supported on this device or browser."},
      {KestrovaError(4999, "NEW_ON_SERVER"), 4999, "NEW_ON_SERVER",
       "Server Error: NEW_ON_SERVER | Code: 4999"},
      {KestrovaError::INVALID_TOKEN.withMessage(""), 4002, "INVALID_TOKEN", ""},
  };
  for (const auto& [error, code, name, message] : table) {
    EXPECT_EQ(error.rawValue(), code);
    EXPECT_EQ(error.description(), name);
    EXPECT_EQ(error.message(), message);
  }
}

TEST(KestrovaErrorTest, comparesByCodeAlone) {
  const KestrovaError own(4002, "OTHER_NAME", "own message");
  EXPECT_EQ(own, KestrovaError::INVALID_TOKEN);
  EXPECT_NE(own, KestrovaError::INVALID_API_KEY);
  std::unordered_set<KestrovaError> set = {own};
  EXPECT_TRUE(set.contains(KestrovaError::INVALID_TOKEN));
}

TEST(KestrovaErrorTest, carriesItsCauseOnOneLineAndNoSecret) {
  const auto& bare = KestrovaError::INVALID_TOKEN;
  EXPECT_EQ(bare.cause(), "");
  EXPECT_EQ(text(bare), "4002 INVALID_TOKEN: " + bare.message());
  const auto expired = bare.withMessage("No.").withCause("token expired");
  EXPECT_EQ(text(expired), "4002 INVALID_TOKEN: No. (token expired)");
  EXPECT_EQ(expired, bare);
  EXPECT_EQ(bare.cause(), "") << "the constant stays as it is";

  const std::pair<std::string, std::string> table[] = {
      {" two\r\n\tlines \x7f", "two lines"},
      {std::string("a\0b", 3), "a b"},
      {"bad token \"eyJhbGciOi.eyJzdWIi.c2ln\", sorry", "bad token \"[REDACTED]\", sorry"},
      {"Bearer:eyJhbGciOi.x", "[REDACTED]"},
      {"no answer of https://ada:pw@host:1/a/b?token=hush#part.",
       "no answer of https://host:1/a/b"},
      {"(see https://host/x?y) (wss://host?z)", "(see https://host/x) (wss://host)"},
      {"who? 50% of a@b", "who? 50% of a@b"},
  };
  for (const auto& [given, kept] : table) EXPECT_EQ(bare.withCause(given).cause(), kept);

  std::string umlauts;
  for (int i = 0; i < 400; ++i) umlauts += "ü";
  const auto shortened = bare.withCause(umlauts).cause();
  EXPECT_LE(shortened.size(), 300U);
  EXPECT_EQ(shortened.substr(shortened.size() - 5), "ü...") << "no character is cut in two";
}

}  // namespace
}  // namespace kestrova
