#include "ServiceWatch.h"

#include <kestrova/platform/Values.h>

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace kestrova::meet {
namespace {

/// "RECORDING_STARTED" as a word within a sentence: "started".
std::string plainState(std::string_view state) {
  std::string word(state.substr(std::min(state.find('_') + 1, state.size())));
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return word;
}

Value textOrNull(const std::optional<std::string>& text) {
  return text ? Value(*text) : Value(nullptr);
}

}  // namespace

struct ServiceWatch::Row {
  std::string_view name;
  bool (*isOn)(const ServiceWatch& self);
  void (*start)(Meeting& meeting);
  void (*stop)(Meeting& meeting);
};

/// In the order of `Service`.
const ServiceWatch::Row& ServiceWatch::rowOf(Service service) {
  static constexpr Row rows[] = {
      {"recording",
       [](const ServiceWatch& self) {
         const auto state = self._meeting.recordingState();
         return state == RecordingState::RECORDING_STARTING ||
                state == RecordingState::RECORDING_STARTED;
       },
       [](Meeting& meeting) { meeting.startRecording(); },
       [](Meeting& meeting) { meeting.stopRecording(); }},
      {"HLS",
       [](const ServiceWatch& self) {
         const auto state = self._meeting.hlsState();
         return state != HLSState::HLS_STOPPING && state != HLSState::HLS_STOPPED;
       },
       [](Meeting& meeting) { meeting.startHLS(); }, [](Meeting& meeting) { meeting.stopHLS(); }},
      {"transcription",
       [](const ServiceWatch& self) {
         const auto state = self._meeting.transcriptionState();
         return state == TranscriptionState::TRANSCRIPTION_STARTING ||
                state == TranscriptionState::TRANSCRIPTION_STARTED;
       },
       [](Meeting& meeting) { meeting.startTranscription(); },
       [](Meeting& meeting) { meeting.stopTranscription(); }},
      {"whiteboard", [](const ServiceWatch& self) { return !self._whiteboard.empty(); },
       [](Meeting& meeting) { meeting.startWhiteboard(); },
       [](Meeting& meeting) { meeting.stopWhiteboard(); }},
  };
  return rows[static_cast<std::size_t>(service)];
}

void ServiceWatch::start(Service service) {
  rowOf(service).start(_meeting);
}

void ServiceWatch::toggle(Service service) {
  const auto& row = rowOf(service);
  const bool on = row.isOn(*this);
  _watcher.note("key", std::string(on ? "stopping " : "starting ").append(row.name));
  (on ? row.stop : row.start)(_meeting);
}

std::vector<std::string> ServiceWatch::lines() const {
  std::string states;
  const auto add = [&states](const char* name, std::string_view state) {
    const auto word = plainState(state);
    if (word == "stopped") return;
    states.append(states.empty() ? "" : ", ").append(name).append(" ").append(word);
  };
  add("recording", text(_meeting.recordingState()));
  add("livestream", text(_meeting.liveStreamState()));
  add("HLS", text(_meeting.hlsState()));
  add("transcription", text(_meeting.transcriptionState()));
  if (!_whiteboard.empty()) add("whiteboard", "open");

  std::vector<std::string> lines;
  if (!states.empty()) lines.push_back(std::move(states));
  if (_meeting.hlsState() == HLSState::HLS_PLAYABLE) lines.push_back("HLS: " + playbackUrl());
  if (!_whiteboard.empty()) lines.push_back("whiteboard: " + _whiteboard);
  return lines;
}

std::string ServiceWatch::playbackUrl() const {
  const auto urls = _meeting.hlsUrls().value_or(HLSUrl{});
  return urls.playbackHlsUrl.value_or(urls.downstreamUrl.value_or("no address"));
}

// ---- What the service tells --------------------------------------------------------------------

void ServiceWatch::onRecordingStateChanged(RecordingState state) {
  _watcher.note("recording", {{"state", text(state)}}, "recording " + plainState(text(state)));
}

void ServiceWatch::onLivestreamStateChanged(LiveStreamState state) {
  _watcher.note("livestream", {{"state", text(state)}}, "livestream " + plainState(text(state)));
}

void ServiceWatch::onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& urls) {
  const auto given = urls.value_or(HLSUrl{});
  _watcher.note("hls",
                {{"state", text(state)},
                 {"downstreamUrl", textOrNull(given.downstreamUrl)},
                 {"playbackHlsUrl", textOrNull(given.playbackHlsUrl)},
                 {"livestreamUrl", textOrNull(given.livestreamUrl)}},
                "HLS " + plainState(text(state)));
}

void ServiceWatch::onTranscriptionStateChanged(TranscriptionState state) {
  _watcher.note("transcription", {{"state", text(state)}},
                "transcription " + plainState(text(state)));
}

void ServiceWatch::onTranscriptionText(const TranscriptionText& piece) {
  _watcher.note("transcriptionText",
                {{"participantId", piece.participantId},
                 {"participantName", piece.participantName},
                 {"text", piece.text},
                 {"timestamp", piece.timestamp},
                 {"type", piece.type}},
                piece.participantName + " (spoken): " + piece.text);
}

void ServiceWatch::onWhiteboardStarted(const std::string& url) {
  _whiteboard = url;
  _watcher.note("whiteboard", {{"url", url}}, "whiteboard at " + url);
}

void ServiceWatch::onWhiteboardStopped() {
  _whiteboard.clear();
  _watcher.note("whiteboard", {{"url", nullptr}}, "whiteboard closed");
}

}  // namespace kestrova::meet
