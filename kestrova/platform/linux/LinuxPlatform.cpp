#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/ScreenSharing.h>
#include <kestrova/platform/linux/ProcessUsage.h>
#include <kestrova/platform/linux/audio/LinuxAudioSession.h>
#include <kestrova/platform/linux/calls/ModemCallObserver.h>
#include <kestrova/platform/linux/capture/CaptureDevices.h>
#include <kestrova/platform/linux/e2ee/LinuxFrameCryptors.h>
#include <kestrova/platform/linux/http/CurlSession.h>
#include <kestrova/platform/linux/imaging/Compositor.h>
#include <kestrova/platform/linux/imaging/LinuxImaging.h>
#include <kestrova/platform/linux/imaging/MainScreen.h>
#include <kestrova/platform/linux/mediasoup/MediasoupDevice.h>
#include <kestrova/platform/linux/screen/LinuxScreenSharing.h>
#include <kestrova/platform/linux/segmentation/PersonSegmentation.h>
#include <kestrova/platform/linux/socketio/SocketManager.h>
#include <kestrova/platform/linux/webrtc/PeerConnectionFactory.h>
#include <kestrova/platform/linux/websocket/WebSocketTaskImpl.h>

#include <openssl/crypto.h>
#include <sys/utsname.h>

#include <cstdio>
#include <utility>

namespace kestrova {
namespace {

OperatingSystem describeSystem() {
  OperatingSystem system;
  utsname names{};
  if (::uname(&names) != 0) return system;
  system.machine = names.machine;
  std::sscanf(names.release, "%d.%d.%d", &system.major, &system.minor, &system.patch);
  return system;
}

Platform makeLinuxPlatform() {
  const auto audioSession = makeAudioSession();
  return {
      .background = Runtime::background(),
      .scheduler = Runtime::scheduler(),
      .urlSession = makeURLSession(),
      .captureDevices = makeCaptureDevices(),
      .makeSocketManager =
          [](const std::string& url, SocketManagerConfig config) {
            return makeSocketManager(url, std::move(config), Runtime::network());
          },
      .makeWebSocketTask =
          [](const std::string& url, std::shared_ptr<SerialQueue> queue,
             WebSocketTask::Events events) {
            return makeWebSocketTask(url, std::move(queue), std::move(events), Runtime::network());
          },
      .makeDevice = [] { return makeDevice(); },
      .peerConnectionFactory = [] { return sharedPeerConnectionFactory(); },
      .operatingSystem = describeSystem(),
      .processUsage = processUsage,
      .imaging = makeImaging(),
      .frameCryptors = makeFrameCryptors(),
      .makeContext = makeCompositor,
      .makeImageRequestHandler = makeImageRequestHandler,
      .mainScreenSize = [] { return mainScreenSize(); },
      .screenSharing = makeScreenSharing(Runtime::network()),
      .audioSession = audioSession,
      .rtcAudioSession = std::make_shared<RTCAudioSession>(audioSession),
      .makeCallObserver = [] { return makeCallObserver(Runtime::network()); },
  };
}

const bool registered = [] {
  // Background threads may be inside TLS when the process exits: OpenSSL must stay whole under
  // them.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  Platform::setDefault(makeLinuxPlatform);
  return true;
}();

}  // namespace
}  // namespace kestrova
