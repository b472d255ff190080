#include "Report.h"
#include <cmath>
#include <cstdio>

namespace kestrova::meet {
namespace {

constexpr std::chrono::milliseconds samplePeriod{1000};

void put(const Dictionary& object) {
  auto line = boost::json::serialize(object);
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

Value rounded(const std::optional<double>& value) {
  return value ? Value(std::round(*value * 100) / 100) : Value(nullptr);
}

Dictionary toJson(const PersonRow& row) {
  List streams;
  for (const auto& stream : row.streams) streams.push_back(Value(stream));
  return {{"id", row.id},
          {"name", row.name},
          {"local", row.local},
          {"here", row.here},
          {"streams", std::move(streams)},
          {"width", row.width},
          {"height", row.height},
          {"fps", rounded(row.fps)},
          {"frames", row.frames},
          {"kbps", rounded(row.kbps)},
          {"levelDb", rounded(row.levelDb)},
          {"hertz", rounded(row.hertz)},
          {"roundTripMs", rounded(row.roundTripMs)},
          {"character", row.character},
          {"doing", row.doing.empty() ? Value(nullptr) : Value(row.doing)},
          {"lastMessage", row.lastMessage.empty() ? Value(nullptr) : Value(row.lastMessage)}};
}

/// An object a line; nothing else goes to standard output.
class JsonReport final : public Report {
public:
  void happened(std::string_view event, const Dictionary& details, const std::string&) override {
    Dictionary object{{"event", event}};
    for (const auto& [key, value] : details) object.insert_or_assign(key, value);
    put(object);
  }

  void tick(const Sample& sample) override {
    if (sample.elapsed < _next) return;
    _next = sample.elapsed + samplePeriod - samplePeriod / 8;
    List people;
    for (const auto& row : sample.people) people.push_back(toJson(row));
    put({{"event", "sample"},
         {"ms", sample.elapsed.count()},
         {"state", sample.state},
         {"people", std::move(people)}});
  }

  void finished(const Summary& summary) override { put(summary.toJson()); }

private:
  std::chrono::milliseconds _next{};
};

}  // namespace

std::unique_ptr<Report> makeJsonReport() {
  return std::make_unique<JsonReport>();
}

}  // namespace kestrova::meet
