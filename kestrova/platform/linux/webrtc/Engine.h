#pragma once

#include <kestrova/platform/WebRTC.h>
#include <kestrova/platform/linux/webrtc/EngineThread.h>

#include <api/peer_connection_interface.h>
#include <modules/audio_device/include/audio_device.h>
#include <rtc_base/thread.h>

#include <memory>

namespace kestrova {

/// libwebrtc with its threads. Everything made by it holds it; what it hands to its threads does
/// not, so that the last holder may let go anywhere, on a thread of the engine included.
class Engine final : public RTCPeerConnectionFactory, public std::enable_shared_from_this<Engine> {
public:
  static std::shared_ptr<Engine> shared();
  ~Engine() override;
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  std::shared_ptr<RTCVideoSource> videoSource() override;
  std::shared_ptr<RTCAudioSource> audioSource(
      const std::map<std::string, std::string>& constraints) override;
  std::shared_ptr<RTCVideoTrack> videoTrack(const std::shared_ptr<RTCVideoSource>& source,
                                            const std::string& trackId) override;
  std::shared_ptr<RTCAudioTrack> audioTrack(const std::shared_ptr<RTCAudioSource>& source,
                                            const std::string& trackId) override;

  EngineThread& thread() { return *_thread; }
  webrtc::PeerConnectionFactoryInterface& factory() { return *_factory; }

private:
  Engine();

  std::unique_ptr<rtc::Thread> _network;
  std::unique_ptr<rtc::Thread> _worker;
  std::unique_ptr<rtc::Thread> _signalling;
  rtc::scoped_refptr<webrtc::AudioDeviceModule> _audioDevice;  // worker thread
  rtc::scoped_refptr<webrtc::PeerConnectionFactoryInterface> _factory;
  std::unique_ptr<EngineThread> _thread;
};

}  // namespace kestrova
