#include <kestrova/platform/Platform.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace kestrova {
namespace {

struct Registry {
  std::mutex lock;
  std::shared_ptr<const Platform> installed;
  std::function<Platform()> makeDefault;
};

Registry& registry() {
  static auto& instance = *new Registry;
  return instance;
}

}  // namespace

std::shared_ptr<const Platform> Platform::current() {
  auto& slot = registry();
  std::scoped_lock held(slot.lock);
  if (!slot.installed) {
    if (!slot.makeDefault) {
      std::fputs("Kestrova: no platform is installed; link kestrova::kestrova\n", stderr);
      std::abort();
    }
    slot.installed = std::make_shared<const Platform>(slot.makeDefault());
  }
  return slot.installed;
}

void Platform::install(Platform platform) {
  auto next = std::make_shared<const Platform>(std::move(platform));
  auto& slot = registry();
  std::scoped_lock held(slot.lock);
  slot.installed.swap(next);
}

void Platform::setDefault(std::function<Platform()> factory) {
  auto& slot = registry();
  std::scoped_lock held(slot.lock);
  slot.makeDefault = std::move(factory);
}

}  // namespace kestrova
