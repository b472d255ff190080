#include <kestrova/media/MediaCapturer.h>
#include <kestrova/tracing/Trace.h>

#include <mutex>
#include <utility>

namespace kestrova {
namespace {

struct DelegateSlot {
  std::mutex lock;
  std::weak_ptr<AuthorisationDelegate> delegate;
};

DelegateSlot& delegateSlot() {
  static auto& slot = *new DelegateSlot;
  return slot;
}

AuthorisationStatus checkPermission(const char* span, const char* unknown,
                                    AuthorisationStatus status) {
  ScopedSpan checking(span);
  if (status < AuthorisationStatus::notDetermined || status > AuthorisationStatus::restricted) {
    checking.fail(unknown + std::to_string(static_cast<int>(status)));
    return AuthorisationStatus::notDetermined;
  }
  checking.event(status == AuthorisationStatus::authorized ? "Permission: ALLOWED"
                                                           : "Permission: DENIED");
  return status;
}

std::vector<std::string> convertDeviceListToString(const std::vector<AVCaptureDevice>& devices) {
  std::vector<std::string> names;
  names.reserve(devices.size());
  for (const auto& device : devices) names.push_back(device.localizedName);
  return names;
}

}  // namespace

AuthorisationStatus MediaCapturer::getVideoPermissionStatus() {
  return checkPermission("Checking Camera Permission", "Error while checking camera permission: ",
                         Platform::current()->captureDevices->cameraAuthorization());
}

AuthorisationStatus MediaCapturer::getAudioPermissionStatus() {
  return checkPermission("Checking Microphone Permission",
                         "Error while checking microphone permission: ",
                         Platform::current()->captureDevices->microphoneAuthorization());
}

std::vector<AVCaptureDevice> MediaCapturer::getListOfCameras() {
  return Platform::current()->captureDevices->cameras();
}

std::vector<std::string> MediaCapturer::getListOfCamerasAsString() {
  ScopedSpan span("Camera List Requested");
  auto names = convertDeviceListToString(getListOfCameras());
  span.event("Camera List fetched successfully");
  return names;
}

void MediaCapturer::setDelegate(std::weak_ptr<AuthorisationDelegate> delegate) {
  std::scoped_lock held(delegateSlot().lock);
  delegateSlot().delegate = std::move(delegate);
}

std::shared_ptr<AuthorisationDelegate> MediaCapturer::delegate() {
  std::scoped_lock held(delegateSlot().lock);
  return delegateSlot().delegate.lock();
}

}  // namespace kestrova
