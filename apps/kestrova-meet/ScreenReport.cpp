#include <sys/ioctl.h>
#include <unistd.h>

#include "Options.h"
#include "Report.h"
#include "SoundWatch.h"
#include "Subtitles.h"
#include "Text.h"
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>

namespace kestrova::meet {
namespace {

constexpr std::size_t shownHappenings = 4;
constexpr int meterBlocks = 8;
constexpr double meterFloorDb = -48;

struct Column {
  const char* title;
  std::size_t width;
  bool right;
};
constexpr Column columns[] = {
    {"PARTICIPANT", 22, false}, {"STREAMS", 12, false}, {"PICTURE", 9, true}, {"FPS", 5, true},
    {"KBIT/S", 7, true},        {"SOUND", 14, false},   {"HZ", 6, true},      {"RTT MS", 6, true}};

std::string meter(double levelDb) {
  const double share = 1 - std::clamp(levelDb, meterFloorDb, 0.0) / meterFloorDb;
  const auto lit = static_cast<int>(std::lround(share * meterBlocks));
  std::string out;
  for (int i = 0; i < meterBlocks; ++i) out += i < lit ? "▮" : "▯";
  if (levelDb <= SoundWatch::silenceDb) return out + "   –";
  return out + fittedRight(fixed(levelDb, 0), 4) + "dB";
}

std::string orDash(const std::optional<double>& value, int decimals) {
  return value ? fixed(*value, decimals) : "–";
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const auto& word : words) out += (out.empty() ? "" : " ") + word;
  return out.empty() ? "–" : out;
}

std::string clockText(std::chrono::milliseconds elapsed) {
  const auto seconds = elapsed.count() / 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%02lld:%02lld", static_cast<long long>(seconds / 60),
                static_cast<long long>(seconds % 60));
  return text;
}

class ScreenReport final : public Report {
public:
  explicit ScreenReport(const Options& options)
      : _title(printable(options.meeting) + "  as " + printable(options.name)) {
    const char* noColor = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    _colour = (!noColor || !*noColor) && (!term || std::string_view(term) != "dumb");
  }

  void happened(std::string_view event, const Dictionary& details,
                const std::string& line) override {
    if (event == "transcriptionText") {
      _subtitles.take(text(details, "participantName", ""), text(details, "text", ""),
                      Subtitles::Clock::now());
      return;
    }
    // The table has a place for these.
    if (line.empty() || event == "characterState" || event == "characterMessage" ||
        event == "inspector")
      return;
    _happenings.push_back((event == "error" ? "! " : "· ") + printable(line));
    if (_happenings.size() > shownHappenings) _happenings.pop_front();
  }

  void tick(const Sample& sample) override {
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    const std::size_t height = known ? size.ws_row : 24;
    const std::size_t width = known && size.ws_col > 0 ? size.ws_col : 80;
    const auto spoken = _subtitles.lines(width, Subtitles::Clock::now());
    std::vector<std::string> lines{heading(sample)};
    if (!sample.inspector.empty()) lines.push_back(paint("36", "inspector " + sample.inspector));
    for (const auto& line : sample.services) lines.push_back(paint("36", printable(line)));
    lines.push_back(paint("2", titles()));
    // Lines that have scrolled away can't be redrawn.
    const std::size_t frame = lines.size() + spoken.size() + shownHappenings + 2;
    const std::size_t room = height > frame ? height - frame : 1;
    addPeople(lines, sample.people, room);
    for (const auto& line : spoken) lines.push_back(paint("1", line));
    for (const auto& line : _happenings) lines.push_back(paint(line[0] == '!' ? "31" : "2", line));
    draw(lines);
  }

  void finished(const Summary& summary) override {
    std::printf("\n%s", summary.text().c_str());
    std::fflush(stdout);
  }

private:
  std::string paint(const char* code, const std::string& text) const {
    return _colour ? std::string("\x1b[") + code + "m" + text + "\x1b[0m" : text;
  }

  /// No more than `room` lines and one that says how many are left out.
  void addPeople(std::vector<std::string>& lines, const std::vector<PersonRow>& people,
                 std::size_t room) const {
    const auto end = lines.size() + room;
    std::size_t shown = 0;
    for (; shown < people.size() && lines.size() < end; ++shown) {
      const auto& row = people[shown];
      lines.push_back(personLine(row));
      if (!row.lastMessage.empty() && lines.size() < end)
        lines.push_back(paint("2", "    \"" + printable(row.lastMessage) + "\""));
    }
    if (shown < people.size())
      lines.push_back("  and " + std::to_string(people.size() - shown) + " more");
  }

  /// Of a long name there is less, so that what follows it can be seen.
  static std::string nameCell(const PersonRow& row) {
    const std::string after = row.local ? " (you)" : row.doing.empty() ? "" : " " + row.doing;
    return shortened(printable(row.name), columns[0].width - columnsOf(after)) + after;
  }

  std::string heading(const Sample& sample) const {
    const bool good = sample.state == "CONNECTED" || sample.state == "JOINED";
    return paint("1", _title) + "  " + paint(good ? "32" : "33", sample.state) + "  " +
           clockText(sample.elapsed);
  }

  static std::string titles() {
    std::string line = "  ";
    for (const auto& column : columns)
      line += (column.right ? fittedRight(column.title, column.width)
                            : fitted(column.title, column.width)) +
              "  ";
    return line;
  }

  std::string personLine(const PersonRow& row) const {
    const auto picture =
        row.width > 0 ? std::to_string(row.width) + "x" + std::to_string(row.height) : "–";
    const std::string cells[] = {nameCell(row),
                                 row.here ? joined(row.streams) : "left",
                                 picture,
                                 row.width > 0 ? fixed(row.fps, 1) : "–",
                                 orDash(row.kbps, 0),
                                 row.levelDb ? meter(*row.levelDb) : "–",
                                 orDash(row.hertz, 0),
                                 orDash(row.roundTripMs, 1)};
    std::string line;
    for (std::size_t i = 0; i < std::size(columns); ++i) {
      const auto& column = columns[i];
      line +=
          (column.right ? fittedRight(cells[i], column.width) : fitted(cells[i], column.width)) +
          "  ";
    }
    if (!row.here) return paint("2", "  " + line);
    const bool flowing = row.fps >= 1 || (row.character && row.kbps.value_or(0) >= 1);
    return paint(flowing ? "32" : "33", flowing ? "● " : "○ ") + line;
  }

  /// In one write and without wrapping, so that nothing flickers and every line stays one line.
  void draw(const std::vector<std::string>& lines) {
    std::string out = "\x1b[?7l";
    if (_drawn > 0) out += "\x1b[" + std::to_string(_drawn) + "A";
    out += "\r";
    for (const auto& line : lines) out += line + "\x1b[K\n";
    out += "\x1b[J\x1b[?7h";
    _drawn = lines.size();
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
  }

  const std::string _title;
  bool _colour = false;
  std::deque<std::string> _happenings;
  Subtitles _subtitles;
  std::size_t _drawn = 0;
};

}  // namespace

std::unique_ptr<Report> makeScreenReport(const Options& options) {
  return std::make_unique<ScreenReport>(options);
}

}  // namespace kestrova::meet
