#pragma once

#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/ValuesFwd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

enum class HLSState { HLS_STARTED, HLS_STARTING, HLS_STOPPED, HLS_STOPPING, HLS_PLAYABLE };
enum class RecordingState {
  RECORDING_STARTING,
  RECORDING_STARTED,
  RECORDING_STOPPING,
  RECORDING_STOPPED
};
enum class LiveStreamState {
  LIVESTREAM_STARTED,
  LIVESTREAM_STARTING,
  LIVESTREAM_STOPPED,
  LIVESTREAM_STOPPING
};
enum class TranscriptionState {
  TRANSCRIPTION_STARTING,
  TRANSCRIPTION_STARTED,
  TRANSCRIPTION_STOPPING,
  TRANSCRIPTION_STOPPED
};

/// The wire text of each state is its name.
inline constexpr EnumTexts<HLSState, 5> hlsStateTexts{
    {"HLS_STARTED", "HLS_STARTING", "HLS_STOPPED", "HLS_STOPPING", "HLS_PLAYABLE"}};
inline constexpr EnumTexts<RecordingState, 4> recordingStateTexts{
    {"RECORDING_STARTING", "RECORDING_STARTED", "RECORDING_STOPPING", "RECORDING_STOPPED"}};
inline constexpr EnumTexts<LiveStreamState, 4> liveStreamStateTexts{
    {"LIVESTREAM_STARTED", "LIVESTREAM_STARTING", "LIVESTREAM_STOPPED", "LIVESTREAM_STOPPING"}};
inline constexpr EnumTexts<TranscriptionState, 4> transcriptionStateTexts{
    {"TRANSCRIPTION_STARTING", "TRANSCRIPTION_STARTED", "TRANSCRIPTION_STOPPING",
     "TRANSCRIPTION_STOPPED"}};

constexpr std::string_view text(HLSState state) {
  return hlsStateTexts(state);
}
constexpr std::string_view text(RecordingState state) {
  return recordingStateTexts(state);
}
constexpr std::string_view text(LiveStreamState state) {
  return liveStreamStateTexts(state);
}
constexpr std::string_view text(TranscriptionState state) {
  return transcriptionStateTexts(state);
}

/// Where an HLS stream can be watched.
struct HLSUrl {
  std::optional<std::string> downstreamUrl;
  std::optional<std::string> playbackHlsUrl;
  std::optional<std::string> livestreamUrl;

  static HLSUrl fromJson(const Dictionary& json);
};

/// A piece of a running transcription. `timestamp` is in milliseconds since 1970.
struct TranscriptionText {
  std::string participantId;
  std::string participantName;
  std::string text;
  std::int64_t timestamp = 0;
  std::string type;

  static TranscriptionText fromJson(const Dictionary& json);
};

}  // namespace kestrova
