#include <kestrova/platform/linux/audio/Speaker.h>

#include <atomic>
#include <mutex>

namespace kestrova {
namespace {

struct Choice {
  std::mutex lock;
  std::string config = "default";  // under lock
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
  choice().config = config.empty() ? "default" : config;
  ++choice().version;
}

std::string speaker() {
  std::scoped_lock held(choice().lock);
  return choice().config;
}

std::uint64_t speakerVersion() {
  return choice().version;
}

}  // namespace kestrova
