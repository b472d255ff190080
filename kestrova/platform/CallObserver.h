#pragma once

#include <kestrova/platform/Queue.h>

#include <memory>
#include <string>

namespace kestrova {

/// A telephone call of the machine, outside of this library.
struct CXCall {
  std::string id;
  bool isOutgoing = false;
  bool hasConnected = false;  ///< it was answered, also when it has ended since
  bool hasEnded = false;
};

class CXCallObserver;

class CXCallObserverDelegate {
public:
  virtual ~CXCallObserverDelegate() = default;
  /// A call is there, or is another than before.
  virtual void callObserver(const CXCallObserver& observer, const CXCall& callChanged) = 0;
};

/// Tells of telephone calls. Where the system knows of none it is quiet.
class CXCallObserver {
public:
  virtual ~CXCallObserver() = default;
  /// Any thread; doesn't wait. What is on its way to an earlier delegate doesn't reach it any more.
  /// \param delegate held weakly; nothing ends the observation
  /// \param queue where it is called; the main queue without one
  virtual void setDelegate(std::weak_ptr<CXCallObserverDelegate> delegate,
                           std::shared_ptr<Queue> queue = nullptr) = 0;
};

}  // namespace kestrova
