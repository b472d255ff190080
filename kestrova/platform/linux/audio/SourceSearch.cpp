#include <kestrova/platform/linux/audio/PulseConnection.h>
#include <kestrova/platform/linux/audio/SoundDevices.h>
#include <kestrova/platform/linux/audio/SourceSearch.h>
#include <kestrova/platform/linux/audio/Speaker.h>

namespace kestrova {
namespace {

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

std::optional<std::string> sourceShownAs(PulseConnection& connection, const std::string& shown,
                                         PulseConnection::Clock::time_point until) {
  const auto devices = shown.empty() ? std::nullopt : readDevices(connection, until);
  if (!devices) return std::nullopt;
  for (const auto& source : devices->sources) {
    const bool isBuiltIn = source.portType == AVAudioSessionPortBuiltInMic && shown == "Speaker";
    if (source.description == shown || isBuiltIn) return source.name;
  }
  return std::nullopt;
}

}  // namespace kestrova
