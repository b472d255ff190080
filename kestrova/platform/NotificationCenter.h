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

/// Notifications by name among the processes of one user that share a group's directory. They carry
/// nothing but their name, and reach whoever observes at that moment. Thread-safe.
class CrossProcessNotifications {
public:
  /// Observes for as long as it lives.
  class Observer {
  public:
    virtual ~Observer() = default;
  };
  virtual ~CrossProcessNotifications() = default;
  /// `handler` is called on a background thread. Nothing when the directory can't be used.
  [[nodiscard]] virtual std::shared_ptr<Observer> addObserver(const std::string& container,
                                                              std::string name,
                                                              std::function<void()> handler) = 0;
  virtual void post(const std::string& container, const std::string& name) = 0;
};

}  // namespace kestrova
