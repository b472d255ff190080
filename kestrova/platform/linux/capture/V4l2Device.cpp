#include <kestrova/platform/linux/capture/PictureConverter.h>
#include <kestrova/platform/linux/capture/V4l2Device.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <tuple>

namespace kestrova {
namespace {

/// What is tried of devices that take any size.
constexpr std::array<v4l2_frmsize_discrete, 6> kCommonSizes{
    {{1920, 1080}, {1280, 720}, {960, 540}, {640, 480}, {640, 360}, {320, 240}}};
constexpr int kUsualRate = 30;
/// From here on a picture moves fluently.
constexpr int kFluentRate = 24;
/// Drivers list dozens; a longer list is a faulty one.
constexpr std::uint32_t kMostEntries = 256;

int rate(const v4l2_fract& interval) {
  if (interval.numerator == 0) return 0;
  return static_cast<int>((interval.denominator + interval.numerator / 2) / interval.numerator);
}

std::uint32_t snapped(std::uint32_t value, std::uint32_t least, std::uint32_t most,
                      std::uint32_t step) {
  const auto inside = std::clamp(value, least, std::max(least, most));
  return step > 1 ? least + (inside - least) / step * step : inside;
}

}  // namespace

V4l2Device::V4l2Device(const std::string& path)
    : _fd(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)), _error(_fd < 0 ? errno : 0) {}

V4l2Device::~V4l2Device() {
  if (_fd >= 0) ::close(_fd);
}

int V4l2Device::control(unsigned long request, void* argument) const {
  int result = 0;
  do result = ::ioctl(_fd, request, argument);
  while (result < 0 && errno == EINTR);
  return result < 0 ? errno : 0;
}

std::optional<v4l2_capability> V4l2Device::camera() const {
  v4l2_capability capability{};
  if (control(VIDIOC_QUERYCAP, &capability) != 0) return std::nullopt;
  const auto can = capability.capabilities & V4L2_CAP_DEVICE_CAPS ? capability.device_caps
                                                                  : capability.capabilities;
  constexpr std::uint32_t kNeeded = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  if ((can & kNeeded) != kNeeded) return std::nullopt;
  return capability;
}

std::vector<CameraMode> V4l2Device::modes() const {
  std::vector<CameraMode> found;
  for (std::uint32_t i = 0; i < kMostEntries; ++i) {
    v4l2_fmtdesc format{};
    format.index = i;
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (control(VIDIOC_ENUM_FMT, &format) != 0) break;
    if (!isReadable(format.pixelformat)) continue;
    for (const auto& size : sizes(format.pixelformat))
      found.push_back({format.pixelformat, static_cast<int>(size.width),
                       static_cast<int>(size.height), highestRate(format.pixelformat, size)});
  }
  return found;
}

std::vector<v4l2_frmsize_discrete> V4l2Device::sizes(std::uint32_t fourcc) const {
  std::vector<v4l2_frmsize_discrete> found;
  for (std::uint32_t i = 0; i < kMostEntries; ++i) {
    v4l2_frmsizeenum entry{};
    entry.index = i;
    entry.pixel_format = fourcc;
    if (control(VIDIOC_ENUM_FRAMESIZES, &entry) != 0) break;
    if (entry.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
      found.push_back(entry.discrete);
      continue;
    }
    const auto& range = entry.stepwise;
    for (const auto& size : kCommonSizes)
      found.push_back(
          {snapped(size.width, range.min_width, range.max_width, range.step_width),
           snapped(size.height, range.min_height, range.max_height, range.step_height)});
    break;
  }
  if (!found.empty()) return found;
  // A driver that lists no sizes has one.
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (control(VIDIOC_G_FMT, &format) == 0)
    found.push_back({format.fmt.pix.width, format.fmt.pix.height});
  return found;
}

int V4l2Device::highestRate(std::uint32_t fourcc, const v4l2_frmsize_discrete& size) const {
  int highest = 0;
  for (std::uint32_t i = 0; i < kMostEntries; ++i) {
    v4l2_frmivalenum entry{};
    entry.index = i;
    entry.pixel_format = fourcc;
    entry.width = size.width;
    entry.height = size.height;
    if (control(VIDIOC_ENUM_FRAMEINTERVALS, &entry) != 0) break;
    const bool discrete = entry.type == V4L2_FRMIVAL_TYPE_DISCRETE;
    highest = std::max(highest, rate(discrete ? entry.discrete : entry.stepwise.min));
    if (!discrete) break;
  }
  return highest > 0 ? highest : kUsualRate;
}

std::optional<CameraMode> chooseMode(const std::vector<CameraMode>& modes,
                                     const CaptureFormat& wanted) {
  const auto merit = [&](const CameraMode& mode) {
    const bool fits = mode.width <= wanted.width && mode.height <= wanted.height;
    const auto area = std::int64_t{mode.width} * mode.height;
    const int fps = std::min(mode.fps, wanted.fps);
    return std::tuple(fits, fps >= std::min(kFluentRate, wanted.fps), fits ? area : -area, fps,
                      -readingCost(mode.fourcc));
  };
  const auto best = std::max_element(modes.begin(), modes.end(), [&](const auto& a, const auto& b) {
    return merit(a) < merit(b);
  });
  return best == modes.end() ? std::nullopt : std::optional(*best);
}

std::string cameraErrorText(int error, const std::string& path) {
  switch (error) {
    case EBUSY:
      return "the camera " + path + " is in use by another program";
    case EACCES:
    case EPERM:
      return "there is no permission to use the camera " + path;
    case ENODEV:
    case ENXIO:
    case ENOENT:
      return "the camera " + path + " was unplugged";
    default:
      return "the camera " + path + " fails: " + std::generic_category().message(error);
  }
}

}  // namespace kestrova
