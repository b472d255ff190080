#include <kestrova/model/ServiceConfigs.h>
#include <kestrova/platform/Values.h>

namespace kestrova {
namespace {

template <class Record>
std::string jsonTextOf(const Record& record) {
  return jsonText(record.toJson()).value_or("");
}

template <class Record>
void addIfGiven(Dictionary& json, const char* key, const std::optional<Record>& record) {
  if (record) json[key] = record->toJson();
}

}  // namespace

Dictionary ConfigLayout::toJson() const {
  return {{"type", text(type)}, {"priority", text(priority)}, {"gridSize", gridSize}};
}

Dictionary RecordingConfig::toJson() const {
  return {{"layout", layout.toJson()},
          {"theme", text(theme)},
          {"mode", text(mode)},
          {"quality", text(quality)},
          {"orientation", text(orientation)}};
}

Dictionary LivestreamRecordingConfig::toJson() const {
  return {{"enabled", enabled}};
}

Dictionary LivestreamConfig::toJson() const {
  Dictionary json{{"layout", layout.toJson()}, {"theme", text(theme)}};
  addIfGiven(json, "recording", recording);
  return json;
}

Dictionary LivestreamOutput::toJson() const {
  return {{"url", url}, {"streamKey", streamKey}};
}

Dictionary SummaryConfig::toJson() const {
  return {{"enabled", enabled}, {"prompt", prompt}};
}

Dictionary TranscriptionConfig::toJson() const {
  Dictionary json{{"webHookUrl", webHookUrl}};
  addIfGiven(json, "summary", summary);
  return json;
}

Dictionary PostTranscriptionConfig::toJson() const {
  Dictionary json{{"enabled", enabled}};
  addIfGiven(json, "summary", summary);
  return json;
}

std::string ConfigLayout::toJsonString() const {
  return jsonTextOf(*this);
}
std::string RecordingConfig::toJsonString() const {
  return jsonTextOf(*this);
}
std::string LivestreamRecordingConfig::toJsonString() const {
  return jsonTextOf(*this);
}
std::string LivestreamConfig::toJsonString() const {
  return jsonTextOf(*this);
}
std::string LivestreamOutput::toJsonString() const {
  return jsonTextOf(*this);
}
std::string SummaryConfig::toJsonString() const {
  return jsonTextOf(*this);
}
std::string TranscriptionConfig::toJsonString() const {
  return jsonTextOf(*this);
}
std::string PostTranscriptionConfig::toJsonString() const {
  return jsonTextOf(*this);
}

}  // namespace kestrova
