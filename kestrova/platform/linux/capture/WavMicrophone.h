#pragma once

#include <kestrova/platform/Capture.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kestrova {

/// Whether a path is that of a file of sound, by its extension.
bool isSoundFile(const std::string& path);

/// A microphone that hears a .wav file, which starts over at its end.
///
/// The samples come at the file's own rate, or at 48 kHz where 10 ms are no whole number of them. A
/// file that can't be read is told to `onFailure` before `start` returns false.
class WavMicrophone final : public MicrophoneCapturer {
public:
  explicit WavMicrophone(std::string path) : _path(std::move(path)) {}
  ~WavMicrophone() override { stop(); }
  void onFailure(FailureHandler handler) override;
  bool start(const std::shared_ptr<RTCAudioSource>& source) override;
  void stop() override;

private:
  class Player;

  const std::string _path;
  std::mutex _lock;
  // Under _lock:
  FailureHandler _failure;
  std::shared_ptr<Player> _player;
  std::thread _thread;
};

}  // namespace kestrova
