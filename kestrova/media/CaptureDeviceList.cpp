#include <kestrova/media/AudioMulticastDelegate.h>
#include <kestrova/media/MediaCapturer.h>
#include <kestrova/tracing/Trace.h>

#include <memory>

namespace kestrova {
namespace {

const std::shared_ptr<AudioMulticastDelegate>& permissionListeners() {
  static const auto& listeners = *new auto(std::make_shared<AudioMulticastDelegate>());
  return listeners;
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
  auto& listeners = permissionListeners()->multicastDelegate;
  listeners.removeAll();
  listeners.add(delegate.lock());
}

void MediaCapturer::addDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate) {
  permissionListeners()->multicastDelegate.add(delegate);
}

void MediaCapturer::removeDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate) {
  permissionListeners()->multicastDelegate.remove(delegate);
}

std::shared_ptr<AuthorisationDelegate> MediaCapturer::delegate() {
  const auto& listeners = permissionListeners();
  return listeners->multicastDelegate.isEmpty() ? nullptr : listeners;
}

}  // namespace kestrova
