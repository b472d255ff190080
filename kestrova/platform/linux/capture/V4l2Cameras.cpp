#include <kestrova/platform/Values.h>
#include <kestrova/platform/linux/capture/V4l2Cameras.h>
#include <kestrova/platform/linux/capture/V4l2Device.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>

namespace kestrova {
namespace {

/// The kernel numbers video nodes below this.
constexpr int kMostNodes = 256;
/// What a meeting's camera is for: larger pictures cost more than they show.
constexpr CaptureFormat kBestFormat{1280, 720, 30};
constexpr const char* kDeviceFolder = "/dev/";

/// The kernel cuts names off, perhaps within a character.
template <std::size_t size>
std::string textOf(const std::uint8_t (&field)[size]) {
  const auto* characters = reinterpret_cast<const char*>(field);
  std::string text(characters, ::strnlen(characters, size));
  for (int cut = 0; cut < 3 && !text.empty() && !isUtf8(text); ++cut) text.pop_back();
  if (isUtf8(text)) return text;
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > 0x7e; }, '?');
  return text;
}

bool isRefusal(int error) {
  return error == EACCES || error == EPERM;
}

std::optional<V4l2Camera> describe(const V4l2Device& node, const std::string& path) {
  const auto capability = node.camera();
  if (!capability) return std::nullopt;
  const auto mode = chooseMode(node.modes(), kBestFormat);
  if (!mode) return std::nullopt;
  V4l2Camera camera;
  camera.path = path;
  camera.device.localizedName = textOf(capability->card);
  camera.device.uniqueId = textOf(capability->bus_info);
  if (camera.device.uniqueId.empty()) camera.device.uniqueId = camera.device.localizedName;
  camera.device.activeFormat = {mode->width, mode->height, std::min(mode->fps, kBestFormat.fps)};
  return camera;
}

std::regex backExpression(const std::string& text) {
  constexpr auto kKind = std::regex::ECMAScript | std::regex::icase;
  try {
    return std::regex(text, kKind);
  } catch (const std::regex_error&) {
    return std::regex(CaptureConfig{}.backCameras, kKind);
  }
}

bool finds(const std::regex& expression, const std::string& text) {
  try {
    return std::regex_search(text, expression);
  } catch (const std::regex_error&) {
    return false;  // an expression that takes too long
  }
}

void assignPositions(std::vector<AVCaptureDevice>& cameras, const std::string& backCameras) {
  if (cameras.empty() || backCameras.empty()) return;
  const auto expression = backExpression(backCameras);
  for (auto& camera : cameras)
    if (finds(expression, camera.localizedName) || finds(expression, camera.uniqueId))
      camera.position = CameraPosition::back;
  const bool front = std::any_of(cameras.begin(), cameras.end(), [](const auto& camera) {
    return camera.position == CameraPosition::front;
  });
  if (!front) cameras.front().position = CameraPosition::front;
}

/// A device file may be named by a link of a stable name.
std::string resolved(const std::string& path) {
  std::error_code failure;
  const auto target = std::filesystem::canonical(path, failure);
  return failure ? path : target.string();
}

/// One that can't be listed is given by its file all the same: the start of a capture tells why.
std::vector<AVCaptureDevice> cameraAt(const std::string& file) {
  const auto path = resolved(file);
  for (auto& camera : listCameras().cameras)
    if (camera.path == path) return {camera.device};
  const V4l2Device node(path);
  if (!node.isOpen() && (node.error() == ENOENT || node.error() == ENODEV)) return {};
  return {{path, path, CameraPosition::front, kBestFormat}};
}

}  // namespace

V4l2Listing listCameras() {
  V4l2Listing listing;
  std::map<std::string, int> places;
  for (int number = 0; number < kMostNodes; ++number) {
    const auto path = kDeviceFolder + ("video" + std::to_string(number));
    const V4l2Device node(path);
    if (!node.isOpen()) {
      if (node.error() == ENOENT) continue;
      ++listing.nodes;
      if (isRefusal(node.error())) ++listing.refused;
      continue;
    }
    ++listing.nodes;
    auto camera = describe(node, path);
    if (!camera) continue;
    const int atPlace = ++places[camera->device.uniqueId];
    if (atPlace > 1) camera->device.uniqueId += "#" + std::to_string(atPlace);
    listing.cameras.push_back(std::move(*camera));
  }
  return listing;
}

std::vector<AVCaptureDevice> camerasFor(const CaptureConfig& config) {
  if (config.camera.starts_with(kDeviceFolder)) return cameraAt(config.camera);
  std::vector<AVCaptureDevice> found;
  for (auto& camera : listCameras().cameras)
    if (config.camera == "default" || config.camera == camera.device.uniqueId)
      found.push_back(std::move(camera.device));
  if (config.camera == "default") assignPositions(found, config.backCameras);
  return found;
}

AuthorisationStatus authorizationFor(const CaptureConfig& config) {
  bool denied = false;
  if (config.camera.starts_with(kDeviceFolder)) {
    denied = isRefusal(V4l2Device(config.camera).error());
  } else {
    const auto listing = listCameras();
    denied = listing.nodes > 0 && listing.refused == listing.nodes;
  }
  return denied ? AuthorisationStatus::denied : AuthorisationStatus::authorized;
}

}  // namespace kestrova
