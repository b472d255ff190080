#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// Hears what the speaker plays. Called on a thread of playout; must return quickly.
class FarEndListener {
public:
  virtual ~FarEndListener() = default;
  /// \param data 10 ms at 48 kHz
  /// \param delay until its first sample is heard
  virtual void onFarEnd(const AudioData& data, std::chrono::milliseconds delay) = 0;
};

/// What the process plays, for the microphones that cancel its echo. Thread-safe; listeners are
/// held weakly and called without a lock.
class PlayoutReference {
public:
  static PlayoutReference& shared();
  void add(const std::shared_ptr<FarEndListener>& listener);
  void publish(const AudioData& data, std::chrono::milliseconds delay);

private:
  using Listeners = std::vector<std::weak_ptr<FarEndListener>>;
  std::mutex _lock;
  // Replaced, never changed, so that `publish` copies only the pointer. Under _lock.
  std::shared_ptr<const Listeners> _listeners = std::make_shared<Listeners>();
};

}  // namespace kestrova
