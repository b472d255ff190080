#include <kestrova/platform/linux/audio/MicrophoneRoute.h>

#include <utility>

namespace kestrova {

// Never destroyed: recordings may still ask while the process exits.
MicrophoneRoute& MicrophoneRoute::shared() {
  static auto& instance = *new MicrophoneRoute;
  return instance;
}

template <class Change>
void MicrophoneRoute::change(Change&& apply) {
  std::vector<std::shared_ptr<Follower>> followers;
  {
    std::scoped_lock held(_lock);
    apply();
    ++_version;
    std::erase_if(_followers, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : _followers)
      if (auto follower = weak.lock()) followers.push_back(std::move(follower));
  }
  for (const auto& follower : followers) follower->routeChanged();
}

void MicrophoneRoute::configure(const std::optional<std::string>& source) {
  change([&] {
    if (_configured == source) return;
    _configured = source;
    _isChosen = false;
    _preferred.reset();
  });
}

bool MicrophoneRoute::isDevice() const {
  std::scoped_lock held(_lock);
  return _configured.has_value();
}

void MicrophoneRoute::prefer(std::optional<std::string> source) {
  change([&] {
    _isChosen = true;
    _preferred = std::move(source);
  });
}

void MicrophoneRoute::setBuiltIn(std::optional<std::string> source) {
  {
    std::scoped_lock held(_lock);
    if (_builtIn == source) return;
  }
  change([&] { _builtIn = std::move(source); });
}

void MicrophoneRoute::sourcesChanged() {
  change([] {});
}

std::string MicrophoneRoute::source(const std::string& configured) const {
  std::scoped_lock held(_lock);
  if (!_isChosen) return configured;
  if (_preferred) return *_preferred;
  return _builtIn.value_or("");
}

std::string MicrophoneRoute::source() const {
  std::string configured;
  {
    std::scoped_lock held(_lock);
    configured = _configured.value_or("");
  }
  return source(configured);
}

std::uint64_t MicrophoneRoute::version() const {
  std::scoped_lock held(_lock);
  return _version;
}

void MicrophoneRoute::add(std::weak_ptr<Follower> follower) {
  std::scoped_lock held(_lock);
  _followers.push_back(std::move(follower));
}

}  // namespace kestrova
