#include <kestrova/platform/NotificationCenter.h>

namespace kestrova {

class NotificationCenter::Observer {
public:
  Observer(std::string n, Handler h) : name(std::move(n)), handler(std::move(h)) {}
  const std::string name;
  const Handler handler;
};

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto& center = *new NotificationCenter;
  return center;
}

std::shared_ptr<NotificationCenter::Observer> NotificationCenter::addObserver(std::string name,
                                                                              Handler handler) {
  auto observer = std::make_shared<Observer>(std::move(name), std::move(handler));
  std::scoped_lock held(_lock);
  std::erase_if(_observers, [](const auto& weak) { return weak.expired(); });
  _observers.push_back(observer);
  return observer;
}

void NotificationCenter::post(const std::string& name, const Dictionary& userInfo) {
  std::vector<std::shared_ptr<Observer>> observers;
  {
    std::scoped_lock held(_lock);
    for (const auto& weak : _observers)
      if (auto observer = weak.lock(); observer && observer->name == name)
        observers.push_back(std::move(observer));
  }
  for (const auto& observer : observers) observer->handler(userInfo);
}

}  // namespace kestrova
