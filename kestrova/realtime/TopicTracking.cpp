#include <kestrova/realtime/TopicTracking.h>

#include <algorithm>
#include <utility>

namespace kestrova {

std::uint64_t TopicSequences::note(std::string_view topic, std::uint64_t seqNum) {
  if (seqNum == 0) return 0;
  const auto found = _lastSeqByTopic.find(topic);
  if (found == _lastSeqByTopic.end()) {
    if (_lastSeqByTopic.size() < mostTopics) _lastSeqByTopic.emplace(topic, seqNum);
    return 0;
  }
  auto& last = found->second;
  if (seqNum <= last) return 0;
  return seqNum - std::exchange(last, seqNum) - 1;
}

std::optional<std::string> TopicReplays::ownerOf(std::string_view topic,
                                                 std::string_view requestId) {
  auto active = _activeReplayByTopic.find(topic);
  if (requestId.empty()) {
    if (active == _activeReplayByTopic.end()) return std::nullopt;
    return active->second.front();
  }
  std::string owner(requestId);
  if (active == _activeReplayByTopic.end()) {
    if (_activeReplayByTopic.size() >= mostTopics) return owner;
    active = _activeReplayByTopic.try_emplace(std::string(topic)).first;
  }
  auto& owners = active->second;
  if (owners.size() < mostOwners && std::find(owners.begin(), owners.end(), owner) == owners.end())
    owners.push_back(owner);
  return owner;
}

void TopicReplays::end(std::string_view topic, const std::string& owner) {
  const auto active = _activeReplayByTopic.find(topic);
  if (active == _activeReplayByTopic.end()) return;
  std::erase(active->second, owner);
  if (active->second.empty()) _activeReplayByTopic.erase(active);
}

}  // namespace kestrova
