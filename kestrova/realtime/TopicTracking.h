#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

// What a connection to the topic server knows of its topics. Both are bounded at more than anybody
// has, so that a server's mistake can't fill the memory.

/// The newest number of each topic's messages.
class TopicSequences {
public:
  static constexpr std::size_t mostTopics = 10'000;

  /// How many messages are missing before this one. What comes late or twice counts nothing, nor
  /// does the first one, nor one without a number (0).
  std::uint64_t note(std::string_view topic, std::uint64_t seqNum);
  void forget(const std::string& topic) { _lastSeqByTopic.erase(topic); }
  void clear() { _lastSeqByTopic.clear(); }

private:
  std::map<std::string, std::uint64_t, std::less<>> _lastSeqByTopic;
};

/// Whose history is under way on which topic.
class TopicReplays {
public:
  static constexpr std::size_t mostTopics = 10'000;
  static constexpr std::size_t mostOwners = 100;

  /// Whose a batch of history is: as it says, or else the first one's that is under way on its
  /// topic; nothing when there is none.
  std::optional<std::string> ownerOf(std::string_view topic, std::string_view requestId);
  void end(std::string_view topic, const std::string& owner);
  void forget(const std::string& topic) { _activeReplayByTopic.erase(topic); }
  void clear() { _activeReplayByTopic.clear(); }

private:
  std::map<std::string, std::vector<std::string>, std::less<>> _activeReplayByTopic;
};

}  // namespace kestrova
