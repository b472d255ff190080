#pragma once

#include <kestrova/platform/WebRTC.h>
#include <kestrova/platform/Work.h>
#include <kestrova/platform/linux/webrtc/EngineThread.h>

#include <api/peer_connection_interface.h>
#include <modules/audio_device/include/audio_device.h>
#include <rtc_base/thread.h>

#include <memory>
#include <type_traits>
#include <utility>

namespace kestrova {

/// libwebrtc with its threads: one of its own, which is its network, worker and signalling thread
/// in one, and one from which it is driven, which may wait for the other. Everything made by it
/// holds it; what it hands to its threads does not, so that the last holder may let go anywhere, on
/// a thread of the engine included.
class Engine final : public RTCPeerConnectionFactory, public std::enable_shared_from_this<Engine> {
public:
  /// \throws MediasoupError where the engine cannot be made
  static std::shared_ptr<Engine> shared();
  ~Engine() override;
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  std::shared_ptr<RTCVideoSource> videoSource() override;
  std::shared_ptr<RTCVideoSource> videoSourceForScreenCast() override;
  std::shared_ptr<RTCAudioSource> audioSource(
      const std::map<std::string, std::string>& constraints) override;
  std::shared_ptr<RTCVideoTrack> videoTrack(const std::shared_ptr<RTCVideoSource>& source,
                                            const std::string& trackId) override;
  std::shared_ptr<RTCAudioTrack> audioTrack(const std::shared_ptr<RTCAudioSource>& source,
                                            const std::string& trackId) override;

  /// The one that drives it: for negotiations, which wait for the engine and for their turn.
  EngineThread& thread() { return *_thread; }
  webrtc::PeerConnectionFactoryInterface& factory() { return *_factory; }
  /// Runs `work` on the engine's own thread, in order, and returns at once. For what takes a moment
  /// and must not stand behind negotiations.
  void post(Work work);
  /// Runs `block` there and waits for it. Not within a callback of the engine.
  template <class F>
  std::invoke_result_t<F> call(F&& block) {
    return _own->BlockingCall(std::forward<F>(block));
  }

private:
  Engine();
  void make();
  void end();

  std::unique_ptr<rtc::Thread> _own;
  rtc::scoped_refptr<webrtc::AudioDeviceModule> _audioDevice;  // its own thread
  rtc::scoped_refptr<webrtc::PeerConnectionFactoryInterface> _factory;
  std::unique_ptr<EngineThread> _thread;
};

}  // namespace kestrova
