#include <kestrova/platform/linux/audio/Speaker.h>

#include <atomic>
#include <mutex>

namespace kestrova {
namespace {

struct Choice {
  std::mutex lock;
  // Under lock:
  std::string config = "default";
  bool isOverridden = false;
  std::optional<std::string> sink;  // of the override

  std::string effective() const { return sink && config != "none" ? *sink : config; }
  std::atomic<std::uint64_t> version{1};
};

// Never destroyed: playout may still ask while the process exits.
Choice& choice() {
  static auto& instance = *new Choice;
  return instance;
}

}  // namespace

void setSpeaker(const std::string& config) {
  std::scoped_lock held(choice().lock);
  const auto next = config.empty() ? "default" : config;
  if (next != choice().config) {
    choice().isOverridden = false;
    choice().sink.reset();
  }
  choice().config = next;
  ++choice().version;
}

void overrideSpeaker(const std::optional<std::string>& sink) {
  std::scoped_lock held(choice().lock);
  const auto before = choice().effective();
  choice().isOverridden = true;
  choice().sink = sink;
  // What plays is disturbed by a change only.
  if (choice().effective() != before) ++choice().version;
}

void endSpeakerOverride() {
  std::scoped_lock held(choice().lock);
  const auto before = choice().effective();
  choice().isOverridden = false;
  choice().sink.reset();
  if (choice().effective() != before) ++choice().version;
}

bool isSpeakerOverridden() {
  std::scoped_lock held(choice().lock);
  return choice().isOverridden;
}

std::string speaker() {
  std::scoped_lock held(choice().lock);
  return choice().effective();
}

std::uint64_t speakerVersion() {
  return choice().version;
}

}  // namespace kestrova
