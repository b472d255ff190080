#pragma once

#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/ValuesFwd.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

// How the services of a meeting are wished to work. Each record gives itself as a dictionary and as
// JSON text; what is optional and not given is left out. The text of a record that can't travel as
// JSON (text that isn't UTF-8) is empty.

enum class ConfigLayoutGrid { GRID, SPOTLIGHT, SIDEBAR };
inline constexpr EnumTexts<ConfigLayoutGrid, 3> configLayoutGridTexts{
    {"GRID", "SPOTLIGHT", "SIDEBAR"}};
constexpr std::string_view text(ConfigLayoutGrid grid) {
  return configLayoutGridTexts(grid);
}

/// Who comes first where not everybody fits.
enum class ConfigLayoutPriority { SPEAKER, PIN };
inline constexpr EnumTexts<ConfigLayoutPriority, 2> configLayoutPriorityTexts{{"SPEAKER", "PIN"}};
constexpr std::string_view text(ConfigLayoutPriority priority) {
  return configLayoutPriorityTexts(priority);
}

enum class ConfigTheme { DEFAULT, LIGHT, DARK };
inline constexpr EnumTexts<ConfigTheme, 3> configThemeTexts{{"DEFAULT", "LIGHT", "DARK"}};
constexpr std::string_view text(ConfigTheme theme) {
  return configThemeTexts(theme);
}

enum class ConfigMode { video_and_audio, audio };
inline constexpr EnumTexts<ConfigMode, 2> configModeTexts{{"video-and-audio", "audio"}};
constexpr std::string_view text(ConfigMode mode) {
  return configModeTexts(mode);
}

enum class ConfigQuality { high, med, low };
inline constexpr EnumTexts<ConfigQuality, 3> configQualityTexts{{"high", "med", "low"}};
constexpr std::string_view text(ConfigQuality quality) {
  return configQualityTexts(quality);
}

enum class ConfigOrientation { landscape, portrait };
inline constexpr EnumTexts<ConfigOrientation, 2> configOrientationTexts{{"landscape", "portrait"}};
constexpr std::string_view text(ConfigOrientation orientation) {
  return configOrientationTexts(orientation);
}

/// How the pictures of the participants are put together.
struct ConfigLayout {
  ConfigLayoutGrid type = ConfigLayoutGrid::GRID;
  ConfigLayoutPriority priority = ConfigLayoutPriority::SPEAKER;
  /// How many pictures are shown at once.
  int gridSize = 4;

  Dictionary toJson() const;
  std::string toJsonString() const;
};

/// What a recording holds.
struct RecordingConfig {
  ConfigLayout layout = {};
  ConfigTheme theme = ConfigTheme::DEFAULT;
  ConfigMode mode = ConfigMode::video_and_audio;
  ConfigQuality quality = ConfigQuality::high;
  ConfigOrientation orientation = ConfigOrientation::landscape;

  Dictionary toJson() const;
  std::string toJsonString() const;
};

/// An HLS stream is put together like a recording.
using HLSConfig = RecordingConfig;

/// Whether the service also records what it streams.
struct LivestreamRecordingConfig {
  bool enabled = false;

  Dictionary toJson() const;
  std::string toJsonString() const;
};

struct LivestreamConfig {
  ConfigLayout layout = {};
  ConfigTheme theme = ConfigTheme::DEFAULT;
  std::optional<LivestreamRecordingConfig> recording = {};

  Dictionary toJson() const;
  std::string toJsonString() const;
};

/// Where a livestream goes. The key is a secret: it is sent to the service, and traced nowhere.
struct LivestreamOutput {
  std::string url;  ///< RTMP
  std::string streamKey;

  Dictionary toJson() const;
  std::string toJsonString() const;
};

/// A summary that the service writes of what was said.
struct SummaryConfig {
  bool enabled = false;
  std::string prompt;  ///< what to write about, and how

  Dictionary toJson() const;
  std::string toJsonString() const;
};

/// A transcription that runs by itself.
struct TranscriptionConfig {
  std::string webHookUrl;  ///< is told of what comes of it
  std::optional<SummaryConfig> summary = {};

  Dictionary toJson() const;
  std::string toJsonString() const;
};

/// A transcription beside a recording or an HLS stream.
struct PostTranscriptionConfig {
  bool enabled = false;
  std::optional<SummaryConfig> summary = {};

  Dictionary toJson() const;
  std::string toJsonString() const;
};

/// What a recording may be started with.
struct RecordingOptions {
  std::optional<std::string> webhookUrl = {};  ///< is told of what comes of it
  std::optional<std::string> awsDirPath = {};  ///< where in the service's storage it goes
  std::optional<RecordingConfig> config = {};
  std::optional<PostTranscriptionConfig> transcription = {};
};

}  // namespace kestrova
