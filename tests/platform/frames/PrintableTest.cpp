#include <gtest/gtest.h>

#include "examples/support/Printable.h"

namespace terminal {
namespace {

TEST(PrintableTest, whatATerminalWouldObeyIsReplacedAndTextIsNot) {
  struct Row {
    const char* text;
    const char* shown;
  };
  const Row rows[] = {
      {"Ada", "Ada"},
      {"Zoë ☕ 𝄞 \u00A0", "Zoë ☕ 𝄞 \u00A0"},
      {"\x1b[2J\x07\r\n\t\x7f", "?[2J?????"},
      {"\u0080\u009B2J\u009F", "??2J?"},  // two bytes each
      {"\x9b\x32J", "?2J"},               // the same as one byte, which is no UTF-8
      {"\xC3", "?"},                      // cut off
      {"\xE2\x98", "??"},
      {"\xE2\x1b[0m", "??[0m"},  // hides an escape in what is no character
      {"\xC0\x9B", "??"},        // longer than it needs to be
      {"\xED\xA0\x80", "???"},   // half of a pair
      {"\xF8\x88\x80\x80\x80", "?????"},
  };
  for (const auto& row : rows) EXPECT_EQ(printable(row.text), row.shown) << row.shown;
  EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a?b");
}

}  // namespace
}  // namespace terminal
