#include <kestrova/platform/linux/audio/PulseConnection.h>
#include <kestrova/platform/linux/audio/PulseDevices.h>
#include <kestrova/platform/linux/audio/SourceSearch.h>
#include <kestrova/platform/linux/audio/Speaker.h>

namespace kestrova {
namespace {

constexpr auto kLongestAnswer = std::chrono::milliseconds(500);

struct FoundSource {
  std::string name;
  std::string monitoredSink;  // empty: a real source
};

std::string text(const char* maybe) {
  return maybe ? maybe : "";
}

std::string defaultSink(PulseConnection& connection, PulseConnection::Clock::time_point until) {
  std::string name;
  const auto told = [](pa_context*, const pa_server_info* info, void* out) {
    if (info) *static_cast<std::string*>(out) = text(info->default_sink_name);
  };
  connection.await(pa_context_get_server_info(connection.context(), told, &name), until);
  return name;
}

}  // namespace

std::optional<std::string> findSource(PulseConnection& connection, const std::string& name,
                                      PulseConnection::Clock::time_point until) {
  FoundSource source;
  const auto found = [](pa_context*, const pa_source_info* info, int end, void* out) {
    if (!end && info)
      *static_cast<FoundSource*>(out) = {text(info->name), text(info->monitor_of_sink_name)};
  };
  connection.await(
      pa_context_get_source_info_by_name(
          connection.context(), name.empty() ? "@DEFAULT_SOURCE@" : name.c_str(), found, &source),
      until);
  if (source.name.empty()) return std::nullopt;
  if (!source.monitoredSink.empty()) {
    const auto chosen = speaker();
    const auto heard = chosen == "default" ? defaultSink(connection, until) : chosen;
    if (source.monitoredSink == heard) return std::nullopt;
  }
  return source.name;
}

std::vector<Microphone> microphones() {
  const auto until = PulseConnection::Clock::now() + kLongestAnswer;
  std::vector<Microphone> list;
  PulseConnection connection;
  if (!connection.openUntil(until)) return list;
  const auto found = [](pa_context*, const pa_source_info* info, int end, void* out) {
    if (end || !info || info->monitor_of_sink != PA_INVALID_INDEX) return;
    static_cast<std::vector<Microphone>*>(out)->push_back(
        {text(info->name), text(info->description)});
  };
  connection.await(pa_context_get_source_info_list(connection.context(), found, &list), until);
  return list;
}

}  // namespace kestrova
