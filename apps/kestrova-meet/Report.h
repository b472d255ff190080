#pragma once

#include <kestrova/platform/Values.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::meet {

struct Options;

/// One participant, or a character, as the table shows it.
struct PersonRow {
  std::string id;
  std::string name;
  bool local = false;
  bool here = true;
  std::vector<std::string> streams;  ///< "audio", "video", "share"
  int width = 0;
  int height = 0;
  double fps = 0;
  std::uint64_t frames = 0;
  std::optional<double> kbps;
  std::optional<double> levelDb;
  std::optional<double> hertz;
  std::optional<double> roundTripMs;
  bool character = false;
  std::string doing;        ///< of an agent or a character: its state in a word
  std::string lastMessage;  ///< of a character: what it said last
};

/// Everything the table shows, at one moment.
struct Sample {
  std::chrono::milliseconds elapsed{};  ///< since `join`
  std::string state;
  std::vector<PersonRow> people;      ///< this participant first, characters last
  std::vector<std::string> services;  ///< lines on those that aren't stopped
  std::string inspector;              ///< the address of its page; empty without one
};

/// What was seen and heard of one remote participant or character in all.
struct RemoteSummary {
  std::string id;
  std::string name;
  std::uint64_t frames = 0;
  int width = 0;
  int height = 0;
  std::optional<std::chrono::milliseconds> firstPicture;  ///< since `join`
  bool soundHeard = false;
  std::optional<double> hertz;
  std::string snapshot;  ///< path, or empty

  /// Whether picture and sound both came.
  bool flowed() const { return frames >= leastFrames && soundHeard; }
  /// Fewer may be one key frame and then nothing.
  static constexpr std::uint64_t leastFrames = 10;
};

struct Summary {
  std::string meeting;
  std::string id;
  std::string name;
  std::optional<std::chrono::milliseconds> joined;  ///< from `join` to `onMeetingJoined`
  std::vector<RemoteSummary> remotes;
  std::vector<RemoteSummary> characters;
  /// How long its own messages took to come back, where it talked: the median.
  std::optional<double> messageRoundTripMs;
  std::size_t messagesBack = 0;
  int exitCode = 0;
  std::string problem;  ///< why `exitCode` isn't 0; empty otherwise

  std::size_t flowing() const;
  Dictionary toJson() const;
  /// Lines for people.
  std::string text() const;
};

/// How the user is told. Called on the main queue.
class Report {
public:
  virtual ~Report() = default;
  /// \param event its name in JSON \param line the same for people; empty when they are told
  ///   otherwise
  virtual void happened(std::string_view event, const Dictionary& details,
                        const std::string& line) = 0;
  /// The state of things, four times a second.
  virtual void tick(const Sample& sample) = 0;
  /// The line that is being typed.
  virtual void typed(std::string_view /*text*/) {}
  virtual void finished(const Summary& summary) = 0;
};

std::unique_ptr<Report> makeJsonReport();
std::unique_ptr<Report> makeLineReport();
/// What is said; for `--chat` without `--json`.
std::unique_ptr<Report> makeChatReport();
/// A table redrawn in place; standard output must be a terminal.
std::unique_ptr<Report> makeScreenReport(const Options& options);

}  // namespace kestrova::meet
