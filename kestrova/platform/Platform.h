#pragma once

#include <kestrova/platform/AudioSession.h>
#include <kestrova/platform/CallObserver.h>
#include <kestrova/platform/Capture.h>
#include <kestrova/platform/Compositing.h>
#include <kestrova/platform/FrameCryptor.h>
#include <kestrova/platform/Imaging.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/ProcessUsage.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/Segmentation.h>
#include <kestrova/platform/SocketIO.h>
#include <kestrova/platform/URLSession.h>
#include <kestrova/platform/WebSocketTask.h>

#include <boost/asio/any_io_executor.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace kestrova {

class ScreenSharing;

/// What the operating system says of itself.
struct OperatingSystem {
  std::string machine;  ///< the hardware name, as `uname` gives it
  int major = 0;
  int minor = 0;
  int patch = 0;
};

/// Everything that the library takes from the world outside, as factories. One record is the
/// process's platform: `kestrova::kestrova` brings the Linux one, tests install a scripted one.
struct Platform {
  /// Runs background work; may use several threads.
  boost::asio::any_io_executor background;
  std::shared_ptr<Scheduler> scheduler;
  std::shared_ptr<URLSession> urlSession;
  std::shared_ptr<CaptureDevices> captureDevices;
  /// Nothing when `url` is no URL.
  std::function<std::shared_ptr<SocketManager>(const std::string& url, SocketManagerConfig config)>
      makeSocketManager;
  /// Nothing when `url` is no URL of the scheme ws or wss.
  std::function<std::shared_ptr<WebSocketTask>(
      const std::string& url, std::shared_ptr<SerialQueue> queue, WebSocketTask::Events events)>
      makeWebSocketTask;
  std::function<std::shared_ptr<Device>()> makeDevice;
  std::function<std::shared_ptr<RTCPeerConnectionFactory>()> peerConnectionFactory;
  OperatingSystem operatingSystem;
  /// Any thread.
  std::function<ProcessUsage()> processUsage = [] { return ProcessUsage(); };
  /// Nothing on a platform that knows no still pictures.
  std::shared_ptr<Imaging> imaging;
  /// Nothing on a platform that can't encrypt.
  std::shared_ptr<FrameCryptors> frameCryptors;
  /// What frames are composited with, and what finds people in them; nothing where the platform has
  /// no such thing. \throws PersonSegmentationError when it should have and can't
  std::function<std::unique_ptr<CIContext>()> makeContext;
  std::function<std::unique_ptr<VNImageRequestHandler>()> makeImageRequestHandler;
  /// The size of the main screen in pixels; nothing without one.
  std::function<std::optional<std::pair<int, int>>()> mainScreenSize;
  /// Nothing on a platform whose screen can't be shared.
  std::shared_ptr<ScreenSharing> screenSharing;
  /// One session, in both forms; nothing on a platform that has no sound of its own.
  std::shared_ptr<AVAudioSession> audioSession;
  std::shared_ptr<RTCAudioSession> rtcAudioSession;
  /// Nothing on a platform that knows no telephone calls.
  std::function<std::shared_ptr<CXCallObserver>()> makeCallObserver;

  static std::shared_ptr<const Platform> current();
  /// Replaces the process's platform. Objects made before keep the one they were made with.
  static void install(Platform platform);
  /// What `current` makes on first use when nothing was installed.
  static void setDefault(std::function<Platform()> factory);
};

}  // namespace kestrova
