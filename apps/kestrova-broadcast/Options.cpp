#include "Options.h"

#include <kestrova/platform/linux/capture/TestPicture.h>
#include <kestrova/platform/linux/screen/PrivateFolder.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace kestrova::broadcast {
namespace {

constexpr int highestRate = 60;
constexpr int longestSide = 16'384;
constexpr double smallestScale = 0.05;

template <class Number>
std::optional<Number> number(std::string_view text, int base = 10) {
  Number value{};
  const auto* end = text.data() + text.size();
  std::from_chars_result result{};
  if constexpr (std::is_floating_point_v<Number>)
    result = std::from_chars(text.data(), end, value);
  else
    result = std::from_chars(text.data(), end, value, base);
  if (result.ec != std::errc() || result.ptr != end || text.empty()) return std::nullopt;
  return value;
}

int within(std::string_view flag, const std::string& text, int least, int most) {
  const auto value = number<int>(text).value_or(least - 1);
  if (value < least || value > most)
    throw UsageError(std::string(flag) + " takes a number from " + std::to_string(least) + " to " +
                     std::to_string(most));
  return value;
}

bool isSide(int length) {
  return length > 0 && length <= longestSide;
}

Region region(const std::string& text) {
  Region found;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%5dx%5d+%5d+%5d%c", &found.width, &found.height, &found.x,
                  &found.y, &rest) != 4 ||
      !isSide(found.width) || !isSide(found.height) || found.x < 0 || found.y < 0)
    throw UsageError("--region takes WIDTHxHEIGHT+X+Y, not \"" + text + "\"");
  return found;
}

Region patternSize(const std::string& text) {
  Region found;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%5dx%5d%c", &found.width, &found.height, &rest) != 2 ||
      found.width < TestPicture::kSmallestWidth || found.height < TestPicture::kSmallestHeight ||
      found.width > 7680 || found.height > 4320)
    throw UsageError("--pattern takes WIDTHxHEIGHT from 104x48 to 7680x4320, not \"" + text + "\"");
  return found;
}

double scale(const std::string& text) {
  const auto value = number<double>(text).value_or(0);
  if (!(value >= smallestScale && value <= 1))
    throw UsageError("--scale takes a number from 0.05 to 1");
  return value;
}

std::uint32_t window(const std::string& text) {
  const bool isHex = text.starts_with("0x");
  const auto id =
      number<std::uint32_t>(std::string_view(text).substr(isHex ? 2 : 0), isHex ? 16 : 10);
  if (!id) throw UsageError("--window takes the number of a window, as xwininfo tells it");
  return *id;
}

std::string source(const std::string& text) {
  if (text != "x11" && text != "portal") throw UsageError("--source takes x11 or portal");
  return text;
}

struct Row {
  std::string_view flag;
  std::string_view value;  ///< empty for a switch
  std::string_view help;
  void (*apply)(Options&, const std::string&);
};

constexpr Row rows[] = {
    {"--group", "NAME", "where the meeting's program waits (kestrova)",
     [](Options& o, const std::string& v) {
       if (!isGroupName(v)) throw UsageError("--group takes letters, digits, '.', '_' and '-'");
       o.group = v;
     }},
    {"--source", "KIND", "x11 or portal; the portal on Wayland, else X11",
     [](Options& o, const std::string& v) { o.source = source(v); }},
    {"--window", "ID", "one window of an X11 screen",
     [](Options& o, const std::string& v) { o.window = window(v); }},
    {"--region", "WxH+X+Y", "a part of the screen",
     [](Options& o, const std::string& v) { o.region = region(v); }},
    {"--scale", "FACTOR", "make it smaller: 0.05 to 1 (1)",
     [](Options& o, const std::string& v) { o.scale = scale(v); }},
    {"--fps", "N", "pictures a second at most, 1 to 60 (15)",
     [](Options& o, const std::string& v) { o.fps = within("--fps", v, 1, highestRate); }},
    {"--quality", "N", "of the pictures on the way to the meeting's program, 1 to 100 (80)",
     [](Options& o, const std::string& v) { o.quality = within("--quality", v, 1, 100); }},
    {"--pattern", "WxH", "a test picture with a running clock; needs no screen",
     [](Options& o, const std::string& v) { o.pattern = patternSize(v); }},
    {"--lifeline", "", "end when standard input ends",
     [](Options& o, const std::string&) { o.lifeline = true; }},
    {"--help", "", "this text", [](Options& o, const std::string&) { o.help = true; }},
    {"--version", "", "the version", [](Options& o, const std::string&) { o.version = true; }},
};

}  // namespace

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto& argument = arguments[i];
    const auto equals = argument.find('=');
    const auto flag = argument.substr(0, equals);
    const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                   [&](const Row& known) { return known.flag == flag; });
    if (row == std::end(rows)) throw UsageError("unknown argument " + flag);
    const bool isAttached = equals != std::string::npos;
    if (row->value.empty()) {
      if (isAttached) throw UsageError(flag + " takes no value");
      row->apply(options, {});
    } else if (isAttached) {
      row->apply(options, argument.substr(equals + 1));
    } else {
      if (++i == arguments.size()) throw UsageError(flag + " needs " + std::string(row->value));
      row->apply(options, arguments[i]);
    }
  }
  if (options.window && options.source == "portal")
    throw UsageError("--window is for X11; the portal asks which window to share");
  return options;
}

std::string usageText() {
  constexpr std::size_t column = 22;
  std::string text =
      "usage: kestrova-broadcast [options]\n"
      "Sends the screen to a program of this user that is in a meeting and shares its screen.\n"
      "Usually that program starts this one.\n\n";
  for (const auto& row : rows) {
    auto left = "  " + std::string(row.flag) + " " + std::string(row.value);
    left.resize(std::max(column, left.size() + 1), ' ');
    text += left + std::string(row.help) + "\n";
  }
  return text +
         "\nIt waits until that program takes the screen, and ends with the share, or by Ctrl-C.\n"
         "Exit status: 0 the share is over, 1 the screen can't be had, 2 bad arguments,\n"
         "3 the user did not allow it.\n";
}

}  // namespace kestrova::broadcast
