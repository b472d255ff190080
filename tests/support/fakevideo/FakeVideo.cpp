#include "FakeVideo.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace kestrova::test {
namespace {

struct Mode {
  std::uint32_t fourcc, width, height, fps;
};

/// One camera as it is described.
struct Camera {
  std::string path;
  std::map<std::string, std::string> words;
  std::vector<Mode> modes;

  std::string text(const char* key, const char* fallback = "") const {
    const auto found = words.find(key);
    return found == words.end() ? fallback : found->second;
  }
  int number(const char* key, int fallback = 0) const {
    return std::atoi(text(key, std::to_string(fallback).c_str()).c_str());
  }
  bool isMetadata() const { return text("kind") == "metadata"; }
};

std::uint32_t fourccOf(const std::string& text) {
  return text.size() < 4 ? 0 : v4l2_fourcc(text[0], text[1], text[2], text[3]);
}

std::vector<Camera> parse(const std::string& text) {
  std::vector<Camera> cameras;
  std::istringstream all(text);
  for (std::string part; std::getline(all, part, ';');) {
    Camera camera;
    std::istringstream words(part);
    if (!(words >> camera.path)) continue;
    for (std::string word; words >> word;) {
      const auto key = word.substr(0, word.find('='));
      camera.words[key] = word.substr(std::min(word.size(), key.size() + 1));
    }
    std::istringstream modes(camera.text("modes"));
    for (std::string mode; std::getline(modes, mode, ',');) {
      Mode parsed{fourccOf(mode), 0, 0, 0};
      std::sscanf(mode.c_str(), "%*5c%ux%u@%u", &parsed.width, &parsed.height, &parsed.fps);
      camera.modes.push_back(parsed);
    }
    cameras.push_back(camera);
  }
  return cameras;
}

using Bytes = std::vector<std::uint8_t>;

/// Calls `place(x, y, colour)` for every pixel.
template <class Place>
void draw(const v4l2_pix_format& format, const Place& place) {
  for (std::uint32_t y = 0; y < format.height; ++y)
    for (std::uint32_t x = 0; x < format.width; ++x)
      place(x, y, kFakeQuarters[(y < format.height / 2 ? 0 : 2) + (x < format.width / 2 ? 0 : 1)]);
}

/// As a camera compresses: full range, half the chroma of each line.
Bytes drawJpeg(const v4l2_pix_format& format) {
  const auto full = [](int value, int range, int middle, int fullMiddle) {
    const int stretched = (value - middle) * 255 / range + fullMiddle;
    return static_cast<std::uint8_t>(std::clamp(stretched, 0, 255));
  };
  Bytes y, u, v;
  draw(format, [&](std::uint32_t x, std::uint32_t, const FakeColour& colour) {
    y.push_back(full(colour.y, 219, 16, 0));
    if (x % 2 == 1) return;
    u.push_back(full(colour.u, 224, 128, 128));
    v.push_back(full(colour.v, 224, 128, 128));
  });
  const std::uint8_t* planes[] = {y.data(), u.data(), v.data()};
  const int width = static_cast<int>(format.width);
  const int strides[] = {width, width / 2, width / 2};
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const auto compressor = ::tjInitCompress();
  ::tjCompressFromYUVPlanes(compressor, planes, width, strides, static_cast<int>(format.height),
                            TJSAMP_422, &jpeg, &size, 95, 0);
  Bytes bytes(jpeg, jpeg + size);
  ::tjFree(jpeg);
  ::tjDestroy(compressor);
  return bytes;
}

Bytes drawPicture(const v4l2_pix_format& format) {
  if (format.pixelformat == V4L2_PIX_FMT_MJPEG) return drawJpeg(format);
  Bytes bytes(format.sizeimage);
  const auto stride = format.bytesperline;
  const auto chroma = stride * format.height;
  draw(format, [&](std::uint32_t x, std::uint32_t y, const FakeColour& colour) {
    const auto half = x % 2 == 0 ? colour.u : colour.v;
    const auto quarter = y / 2 * (stride / 2) + x / 2;
    switch (format.pixelformat) {
      case V4L2_PIX_FMT_YUYV:
      case V4L2_PIX_FMT_UYVY: {
        const std::uint32_t luma = format.pixelformat == V4L2_PIX_FMT_YUYV ? 0 : 1;
        bytes[y * stride + x * 2 + luma] = colour.y;
        bytes[y * stride + x * 2 + 1 - luma] = half;
        break;
      }
      case V4L2_PIX_FMT_NV12:
        bytes[y * stride + x] = colour.y;
        bytes[chroma + y / 2 * stride + x] = half;
        break;
      case V4L2_PIX_FMT_YUV420:
        bytes[y * stride + x] = colour.y;
        bytes[chroma + quarter] = colour.u;
        bytes[chroma + stride / 2 * (format.height / 2) + quarter] = colour.v;
        break;
      default:
        break;
    }
  });
  return bytes;
}

/// A socket that is readable while a picture waits.
class Handle {
public:
  explicit Handle(Camera camera) : _camera(std::move(camera)) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) return;
    fd = pair[0];
    _peer = pair[1];
    memory = ::memfd_create("fakevideo", MFD_CLOEXEC);
  }
  ~Handle() {
    stop();
    ::close(_peer);
    ::close(memory);
  }

  void release() { tell(_released, true); }
  int control(unsigned long request, void* argument) {
    {
      std::scoped_lock held(_lock);
      if (_gone) return ENODEV;
    }
    const int result = enumerate(request, argument);
    return result >= 0 ? result : stream(request, argument);
  }

  int fd = -1;
  int memory = -1;

private:
  struct Slot {
    bool queued = false;
    std::uint32_t bytes = 0;
    std::int64_t timeUs = 0;
  };

  void tell(bool& flag, bool value) {
    std::scoped_lock held(_lock);
    flag = value;
    _wake.notify_all();
  }
  void stop() {
    tell(_streaming, false);
    if (_producer.joinable()) _producer.join();
  }
  /// The mode that is number `index` of those that fit.
  template <class Fits>
  const Mode* find(std::uint32_t index, const Fits& fits) const {
    for (const auto& mode : _camera.modes)
      if (fits(mode) && index-- == 0) return &mode;
    return nullptr;
  }
  int enumerate(unsigned long request, void* argument) const;
  int stream(unsigned long request, void* argument);
  int setFormat(v4l2_pix_format& format, bool apply);
  void describe(v4l2_buffer& buffer, std::uint32_t index) const;
  void produce();
  /// Buffers begin with a page, to be mapped one by one.
  std::uint32_t offsetOf(std::uint32_t index) const {
    constexpr std::uint32_t page = 4096;
    return (_format.sizeimage + page - 1) / page * page * index;
  }

  const Camera _camera;
  std::thread _producer;
  std::mutex _lock;
  std::condition_variable _wake;
  // Under _lock:
  int _peer = -1;
  v4l2_pix_format _format{};
  std::vector<Slot> _slots;
  std::deque<std::uint32_t> _queued, _filled;
  std::uint32_t _fps = 30;
  bool _streaming = false, _released = false, _gone = false;
};

/// -1 for what is no question about the camera.
int Handle::enumerate(unsigned long request, void* argument) const {
  if (request == VIDIOC_QUERYCAP) {
    auto& capability = *static_cast<v4l2_capability*>(argument);
    capability = {};
    const auto put = [](auto& field, const std::string& text) {
      text.copy(reinterpret_cast<char*>(field), sizeof(field));
    };
    put(capability.bus_info, _camera.text("bus", "platform:fake"));
    auto card = _camera.text("card", "Fake_Camera");
    std::replace(card.begin(), card.end(), '_', ' ');
    put(capability.card, card);
    const auto own = _camera.isMetadata() ? V4L2_CAP_META_CAPTURE : V4L2_CAP_VIDEO_CAPTURE;
    capability.device_caps = V4L2_CAP_STREAMING | own;
    // Of the whole device, as the kernel gives it for each of its nodes.
    capability.capabilities =
        V4L2_CAP_DEVICE_CAPS | V4L2_CAP_STREAMING | V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE;
    return 0;
  }
  if (request == VIDIOC_ENUM_FMT) {
    auto& format = *static_cast<v4l2_fmtdesc*>(argument);
    std::set<std::uint32_t> seen;
    const auto* mode =
        find(format.index, [&](const Mode& each) { return seen.insert(each.fourcc).second; });
    if (_camera.isMetadata() || !mode) return EINVAL;
    format.pixelformat = mode->fourcc;
    return 0;
  }
  if (request == VIDIOC_ENUM_FRAMESIZES) {
    auto& size = *static_cast<v4l2_frmsizeenum*>(argument);
    const auto* mode =
        find(size.index, [&](const Mode& each) { return each.fourcc == size.pixel_format; });
    if (!mode) return EINVAL;
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size.discrete = {mode->width, mode->height};
    return 0;
  }
  if (request == VIDIOC_ENUM_FRAMEINTERVALS) {
    auto& interval = *static_cast<v4l2_frmivalenum*>(argument);
    const auto* mode = find(interval.index, [&](const Mode& each) {
      return each.fourcc == interval.pixel_format && each.width == interval.width &&
             each.height == interval.height;
    });
    if (!mode) return EINVAL;
    interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    interval.discrete = {1, mode->fps};
    return 0;
  }
  return -1;
}

int Handle::stream(unsigned long request, void* argument) {
  std::unique_lock held(_lock);
  switch (request) {
    case VIDIOC_S_FMT:
    case VIDIOC_G_FMT:
      return setFormat(static_cast<v4l2_format*>(argument)->fmt.pix, request == VIDIOC_S_FMT);
    case VIDIOC_S_PARM:
      _fps = std::max(
          1u, static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe.denominator);
      return 0;
    case VIDIOC_REQBUFS: {
      auto& count = static_cast<v4l2_requestbuffers*>(argument)->count;
      if (_format.sizeimage == 0) return EINVAL;
      _slots.assign(count = std::min(count, 8u), {});
      return ::ftruncate(memory, static_cast<off_t>(offsetOf(count))) ? errno : 0;
    }
    case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF: {
      auto& buffer = *static_cast<v4l2_buffer*>(argument);
      if (buffer.index >= _slots.size()) return EINVAL;
      const auto index = buffer.index;
      describe(buffer, index);
      if (request == VIDIOC_QUERYBUF) return 0;
      if (std::exchange(_slots[index].queued, true)) return EINVAL;
      _queued.push_back(index);
      return 0;
    }
    case VIDIOC_DQBUF: {
      char token = 0;
      if (_filled.empty() || ::read(fd, &token, 1) != 1) return EAGAIN;
      const auto index = _filled.front();
      _filled.pop_front();
      _slots[index].queued = false;
      describe(*static_cast<v4l2_buffer*>(argument), index);
      return 0;
    }
    case VIDIOC_STREAMON:
      if (_camera.number("hang")) _wake.wait(held, [&] { return _released; });
      if (_slots.empty()) return EINVAL;
      _streaming = true;
      _producer = std::thread([this] { produce(); });
      return 0;
    case VIDIOC_STREAMOFF:
      held.unlock();
      stop();
      return 0;
    default:
      return ENOTTY;
  }
}

int Handle::setFormat(v4l2_pix_format& format, bool apply) {
  if (_camera.number("busy") && apply) return EBUSY;
  if (_camera.modes.empty()) return EINVAL;
  const auto* asked = find(0, [&](const Mode& mode) {
    return mode.fourcc == format.pixelformat && mode.width == format.width &&
           mode.height == format.height;
  });
  const auto& chosen = asked ? *asked : _camera.modes.front();
  const auto give = fourccOf(_camera.text("give"));
  const bool packed = chosen.fourcc == V4L2_PIX_FMT_YUYV || chosen.fourcc == V4L2_PIX_FMT_UYVY;
  const bool jpeg = chosen.fourcc == V4L2_PIX_FMT_MJPEG;
  format = {};
  format.width = chosen.width;
  format.height = chosen.height;
  format.pixelformat = give ? give : chosen.fourcc;
  format.bytesperline =
      jpeg ? 0
           : chosen.width * (packed ? 2 : 1) + static_cast<std::uint32_t>(_camera.number("pad"));
  format.sizeimage = jpeg ? chosen.width * chosen.height * 2
                          : format.bytesperline * chosen.height * (packed ? 2 : 3) / 2;
  format.field = V4L2_FIELD_NONE;
  format.colorspace = jpeg ? V4L2_COLORSPACE_JPEG : V4L2_COLORSPACE_SRGB;
  if (apply) _format = format;
  return 0;
}

void Handle::describe(v4l2_buffer& buffer, std::uint32_t index) const {
  const auto& slot = _slots[index];
  buffer.index = index;
  buffer.length = _format.sizeimage;
  buffer.m.offset = offsetOf(index);
  buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  buffer.bytesused = slot.bytes;
  buffer.timestamp = {slot.timeUs / 1'000'000, slot.timeUs % 1'000'000};
}

/// The camera itself, from STREAMON to STREAMOFF.
void Handle::produce() {
  std::unique_lock held(_lock);
  const auto picture = drawPicture(_format);
  const int corrupt = _camera.number("corrupt");
  for (int count = 0; _streaming; ++count) {
    if (count == _camera.number("stall", -1)) break;
    _wake.wait_for(held, std::chrono::microseconds(1'000'000 / _fps), [&] { return !_streaming; });
    if (count == _camera.number("unplug", -1)) {
      _gone = true;
      ::close(std::exchange(_peer, -1));
      break;
    }
    if (!_streaming || _queued.empty()) continue;
    const auto index = _queued.front();
    _queued.pop_front();
    const bool cut = corrupt > 0 && count % corrupt == 0;
    const auto bytes =
        std::min<std::size_t>(cut ? picture.size() / 2 : picture.size(), _format.sizeimage);
    if (::pwrite(memory, picture.data(), bytes, offsetOf(index)) < 0) break;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    _slots[index].bytes = static_cast<std::uint32_t>(bytes);
    _slots[index].timeUs = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    _filled.push_back(index);
    if (::write(_peer, "p", 1) != 1) break;
  }
}

struct Registry {
  std::mutex lock;
  // Under lock:
  std::vector<Camera> cameras;
  std::map<int, std::shared_ptr<Handle>> handles;
};

/// Never destroyed: threads left behind may still call.
Registry& registry() {
  static auto* const made = [] {
    auto* fresh = new Registry;
    if (const char* text = std::getenv("FAKEVIDEO")) fresh->cameras = parse(text);
    return fresh;
  }();
  return *made;
}

std::shared_ptr<Handle> handleOf(int fd, bool forget = false) {
  std::scoped_lock held(registry().lock);
  auto& handles = registry().handles;
  const auto found = handles.find(fd);
  if (found == handles.end()) return nullptr;
  const auto handle = found->second;
  if (forget) handles.erase(found);
  return handle;
}

bool isVideo(const char* path) {
  return path && std::string_view(path).starts_with("/dev/video");
}

int openCamera(const char* path) {
  std::scoped_lock held(registry().lock);
  for (const auto& camera : registry().cameras) {
    if (camera.path != path) continue;
    errno = camera.number("open");
    if (errno != 0) return -1;
    const auto handle = std::make_shared<Handle>(camera);
    registry().handles[handle->fd] = handle;
    return handle->fd;
  }
  errno = ENOENT;
  return -1;
}

template <typename Function>
Function real(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace kestrova::test

using namespace kestrova::test;

extern "C" {

void fakevideoConfigure(const char* cameras) {
  std::scoped_lock held(registry().lock);
  registry().cameras = parse(cameras);
}

void fakevideoRelease() {
  std::scoped_lock held(registry().lock);
  for (const auto& [fd, handle] : registry().handles) handle->release();
}

int fakevideoOpenHandles() {
  std::scoped_lock held(registry().lock);
  return static_cast<int>(registry().handles.size());
}

// The calls that are stood in for, by the names that programs are compiled to call.

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  if (isVideo(path)) return openCamera(path);
  static const auto next = real<int (*)(const char*, int, ...)>("open");
  return next(path, flags, mode);
}

int close(int fd) {
  const auto handle = handleOf(fd, true);
  static const auto next = real<int (*)(int)>("close");
  return next(fd);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (const auto handle = handleOf(fd)) {
    const int error = handle->control(request, argument);
    if (error != 0) errno = error;
    return error == 0 ? 0 : -1;
  }
  static const auto next = real<int (*)(int, unsigned long, ...)>("ioctl");
  return next(fd, request, argument);
}

void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
  if (fd >= 0)
    if (const auto handle = handleOf(fd)) fd = handle->memory;
  static const auto next = real<void* (*)(void*, size_t, int, int, int, off_t)>("mmap");
  return next(address, length, protection, flags, fd, offset);
}
}
