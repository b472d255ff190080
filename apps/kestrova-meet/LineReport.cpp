#include "Report.h"
#include "Text.h"
#include <cstdio>

namespace kestrova::meet {
namespace {

constexpr std::chrono::milliseconds linePeriod{1000};

std::string describe(const PersonRow& row) {
  auto out = printable(row.name);
  if (!row.here) return out + " (left)";
  const auto add = [&out](const std::string& value, const char* unit) {
    out.append(1, ' ').append(value).append(unit);
  };
  if (!row.doing.empty()) out += " " + row.doing;
  if (row.width > 0) {
    add(std::to_string(row.width), "x");
    out += std::to_string(row.height);
    add(fixed(row.fps, 1), " fps");
  }
  if (row.kbps) add(fixed(*row.kbps, 0), " kbit/s");
  if (row.levelDb) add(fixed(*row.levelDb, 0), " dB");
  if (row.hertz) add(fixed(*row.hertz, 0), " Hz");
  if (row.roundTripMs) add(fixed(*row.roundTripMs, 1), " ms round trip");
  return out;
}

/// For a log: a line a second, then the summary.
class LineReport final : public Report {
public:
  void happened(std::string_view event, const Dictionary&, const std::string& line) override {
    // What happened can be seen in the next line, but for what went wrong.
    if (event == "error" && !line.empty())
      std::fprintf(stderr, "kestrova-meet: %s\n", printable(line).c_str());
    if (event == "inspector") std::printf("%s\n", line.c_str());
  }

  void tick(const Sample& sample) override {
    if (sample.elapsed < _next) return;
    _next = sample.elapsed + linePeriod - linePeriod / 8;
    auto line = fittedRight(fixed(static_cast<double>(sample.elapsed.count()) / 1000, 1), 6) +
                " s  " + sample.state;
    for (const auto& row : sample.people)
      if (!row.local) line += "  |  " + describe(row);
    for (const auto& service : sample.services) line += "  |  " + printable(service);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

  void finished(const Summary& summary) override {
    std::fputs(summary.text().c_str(), stdout);
    std::fflush(stdout);
  }

private:
  std::chrono::milliseconds _next{};
};

}  // namespace

std::unique_ptr<Report> makeLineReport() {
  return std::make_unique<LineReport>();
}

}  // namespace kestrova::meet
