#pragma once

#include <kestrova/platform/Values.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova {

/// Notifications by name within the process. Thread-safe.
class NotificationCenter {
public:
  using Handler = std::function<void(const Dictionary& userInfo)>;
  /// Observes for as long as it lives.
  class Observer;

  static NotificationCenter& defaultCenter();

  [[nodiscard]] std::shared_ptr<Observer> addObserver(std::string name, Handler handler);
  /// Calls every observer of `name` on the calling thread.
  void post(const std::string& name, const Dictionary& userInfo);

private:
  std::mutex _lock;
  std::vector<std::weak_ptr<Observer>> _observers;
};

}  // namespace kestrova
