#pragma once

#include <kestrova/platform/Capture.h>
#include <kestrova/platform/linux/capture/PeriodicThread.h>

#include <memory>
#include <mutex>

namespace kestrova {

/// A microphone that hears a sine: 48 kHz, one channel, a quarter of full scale.
class ToneCapturer final : public MicrophoneCapturer {
public:
  explicit ToneCapturer(double hz) : _hz(hz) {}
  ~ToneCapturer() override { stop(); }
  void onFailure(FailureHandler) override {}  // a sine does not fail
  bool start(const std::shared_ptr<RTCAudioSource>& source) override;
  void stop() override;

private:
  double _hz;
  std::mutex _lock;
  std::unique_ptr<PeriodicThread> _thread;  // under _lock
};

}  // namespace kestrova
