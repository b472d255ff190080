#include "FakeCamera.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <turbojpeg.h>
#include <unistd.h>

#include "FakeVideo.h"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace kestrova::test {
namespace {

std::uint32_t fourccOf(const std::string& text) {
  return text.size() == 4 ? v4l2_fourcc(text[0], text[1], text[2], text[3]) : 0;
}

template <std::size_t size>
void put(std::uint8_t (&field)[size], const std::string& text) {
  std::memcpy(field, text.data(), std::min(size, text.size()));
}

FakeColour colourAt(std::uint32_t x, std::uint32_t y, const v4l2_pix_format& format) {
  return kFakeQuarters[(y < format.height / 2 ? 0 : 2) + (x < format.width / 2 ? 0 : 1)];
}

/// As a camera compresses: full range, half the chroma of each line.
std::vector<std::uint8_t> drawJpeg(const v4l2_pix_format& format) {
  const auto full = [](int value, int range, int middle, int fullMiddle) {
    return static_cast<std::uint8_t>(
        std::clamp((value - middle) * 255 / range + fullMiddle, 0, 255));
  };
  const std::uint32_t chromaWidth = format.width / 2;
  std::vector<std::uint8_t> y, u, v;
  for (std::uint32_t line = 0; line < format.height; ++line)
    for (std::uint32_t x = 0; x < format.width; ++x) {
      const auto colour = colourAt(x, line, format);
      y.push_back(full(colour.y, 219, 16, 0));
      if (x % 2 == 1) continue;
      u.push_back(full(colour.u, 224, 128, 128));
      v.push_back(full(colour.v, 224, 128, 128));
    }
  const std::uint8_t* planes[] = {y.data(), u.data(), v.data()};
  const int strides[] = {static_cast<int>(format.width), static_cast<int>(chromaWidth),
                         static_cast<int>(chromaWidth)};
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const auto compressor = ::tjInitCompress();
  ::tjCompressFromYUVPlanes(compressor, planes, static_cast<int>(format.width), strides,
                            static_cast<int>(format.height), TJSAMP_422, &jpeg, &size, 95, 0);
  std::vector<std::uint8_t> bytes(jpeg, jpeg + size);
  ::tjFree(jpeg);
  ::tjDestroy(compressor);
  return bytes;
}

}  // namespace

std::vector<FakeCamera> parseFakeCameras(const std::string& text) {
  std::vector<FakeCamera> cameras;
  std::istringstream all(text);
  for (std::string part; std::getline(all, part, ';');) {
    FakeCamera camera;
    std::istringstream words(part);
    if (!(words >> camera.path)) continue;
    for (std::string word; words >> word;) {
      const auto key = word.substr(0, word.find('='));
      auto value = word.substr(std::min(word.size(), key.size() + 1));
      const int number = std::atoi(value.c_str());
      if (key == "card") std::replace(value.begin(), value.end(), '_', ' '), camera.card = value;
      if (key == "bus") camera.bus = value;
      if (key == "kind") camera.metadata = value == "metadata";
      if (key == "open") camera.openError = number;
      if (key == "busy") camera.busy = number != 0;
      if (key == "give") camera.give = fourccOf(value);
      if (key == "pad") camera.pad = static_cast<std::uint32_t>(number);
      if (key == "hang") camera.hang = number != 0;
      if (key == "unplug") camera.unplug = number;
      if (key == "stall") camera.stall = number;
      if (key == "corrupt") camera.corrupt = number;
      if (key == "stamps") camera.stamps = number != 0;
      if (key != "modes") continue;
      std::istringstream modes(value);
      for (std::string mode; std::getline(modes, mode, ',');) {
        FakeMode parsed{fourccOf(mode.substr(0, 4)), 0, 0, 0};
        std::sscanf(mode.c_str() + std::min<std::size_t>(5, mode.size()), "%ux%u@%u", &parsed.width,
                    &parsed.height, &parsed.fps);
        camera.modes.push_back(parsed);
      }
    }
    cameras.push_back(camera);
  }
  return cameras;
}

FakeHandle::FakeHandle(FakeCamera camera) : _camera(std::move(camera)) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) return;
  _fd = pair[0];
  _peer = pair[1];
  _memory = ::memfd_create("fakevideo", MFD_CLOEXEC);
}

FakeHandle::~FakeHandle() {
  stop();
  if (_peer >= 0) ::close(_peer);
  if (_memory >= 0) ::close(_memory);
}

void FakeHandle::release() {
  std::scoped_lock held(_lock);
  _released = true;
  _wake.notify_all();
}

void FakeHandle::stop() {
  {
    std::scoped_lock held(_lock);
    _streaming = false;
    _wake.notify_all();
  }
  if (_producer.joinable()) _producer.join();
}

int FakeHandle::control(unsigned long request, void* argument) {
  {
    std::scoped_lock held(_lock);
    if (_gone) return ENODEV;
  }
  if (_IOC_TYPE(request) != 'V') return ENOTTY;
  const int result = enumerate(request, argument);
  return result >= 0 ? result : stream(request, argument);
}

/// -1 for what is no question about the camera.
int FakeHandle::enumerate(unsigned long request, void* argument) {
  switch (request) {
    case VIDIOC_QUERYCAP: {
      auto& capability = *static_cast<v4l2_capability*>(argument);
      capability = {};
      put(capability.card, _camera.card);
      put(capability.bus_info, _camera.bus);
      capability.device_caps =
          V4L2_CAP_STREAMING | (_camera.metadata ? V4L2_CAP_META_CAPTURE : V4L2_CAP_VIDEO_CAPTURE);
      // Of the whole device, as the kernel gives it for each of its nodes.
      capability.capabilities = V4L2_CAP_DEVICE_CAPS | V4L2_CAP_STREAMING | V4L2_CAP_VIDEO_CAPTURE |
                                V4L2_CAP_META_CAPTURE;
      return 0;
    }
    case VIDIOC_ENUM_FMT: {
      auto& format = *static_cast<v4l2_fmtdesc*>(argument);
      std::vector<std::uint32_t> distinct;
      for (const auto& mode : _camera.modes)
        if (std::find(distinct.begin(), distinct.end(), mode.fourcc) == distinct.end())
          distinct.push_back(mode.fourcc);
      if (_camera.metadata || format.index >= distinct.size()) return EINVAL;
      format.pixelformat = distinct[format.index];
      return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
      auto& size = *static_cast<v4l2_frmsizeenum*>(argument);
      auto left = size.index;
      for (const auto& mode : _camera.modes)
        if (mode.fourcc == size.pixel_format && left-- == 0) {
          size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
          size.discrete = {mode.width, mode.height};
          return 0;
        }
      return EINVAL;
    }
    case VIDIOC_ENUM_FRAMEINTERVALS: {
      auto& interval = *static_cast<v4l2_frmivalenum*>(argument);
      auto left = interval.index;
      for (const auto& mode : _camera.modes)
        if (mode.fourcc == interval.pixel_format && mode.width == interval.width &&
            mode.height == interval.height && left-- == 0) {
          interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
          interval.discrete = {1, mode.fps};
          return 0;
        }
      return EINVAL;
    }
    default:
      return -1;
  }
}

int FakeHandle::stream(unsigned long request, void* argument) {
  std::unique_lock held(_lock);
  switch (request) {
    case VIDIOC_S_FMT:
    case VIDIOC_G_FMT:
      return setFormat(static_cast<v4l2_format*>(argument)->fmt.pix, request == VIDIOC_S_FMT);
    case VIDIOC_S_PARM:
      _fps = std::max(
          1u, static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe.denominator);
      return 0;
    case VIDIOC_REQBUFS:
      return requestBuffers(*static_cast<v4l2_requestbuffers*>(argument));
    case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF: {
      auto& buffer = *static_cast<v4l2_buffer*>(argument);
      if (buffer.index >= _slots.size()) return EINVAL;
      const auto index = buffer.index;
      describe(buffer, index);
      if (request == VIDIOC_QUERYBUF) return 0;
      if (_slots[index].queued) return EINVAL;
      _slots[index].queued = true;
      _queued.push_back(index);
      return 0;
    }
    case VIDIOC_DQBUF:
      return dequeue(*static_cast<v4l2_buffer*>(argument));
    case VIDIOC_STREAMON:
      if (_camera.hang) _wake.wait(held, [&] { return _released; });
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

int FakeHandle::setFormat(v4l2_pix_format& format, bool apply) {
  if (_camera.busy && apply) return EBUSY;
  if (_camera.modes.empty()) return EINVAL;
  auto chosen = _camera.modes.front();
  for (const auto& mode : _camera.modes)
    if (mode.fourcc == format.pixelformat && mode.width == format.width &&
        mode.height == format.height)
      chosen = mode;
  format = {};
  format.width = chosen.width;
  format.height = chosen.height;
  format.pixelformat = _camera.give ? _camera.give : chosen.fourcc;
  const bool packed = chosen.fourcc == V4L2_PIX_FMT_YUYV || chosen.fourcc == V4L2_PIX_FMT_UYVY;
  const bool jpeg = chosen.fourcc == V4L2_PIX_FMT_MJPEG;
  format.bytesperline = jpeg ? 0 : chosen.width * (packed ? 2 : 1) + _camera.pad;
  format.sizeimage = jpeg ? chosen.width * chosen.height * 2
                          : format.bytesperline * chosen.height * (packed ? 2 : 3) / 2;
  format.field = V4L2_FIELD_NONE;
  format.colorspace = jpeg ? V4L2_COLORSPACE_JPEG : V4L2_COLORSPACE_SRGB;
  if (apply) _format = format;
  return 0;
}

int FakeHandle::requestBuffers(v4l2_requestbuffers& request) {
  if (_format.sizeimage == 0) return EINVAL;
  request.count = std::min(request.count, 8u);
  _slots.assign(request.count, {});
  return ::ftruncate(_memory, static_cast<off_t>(offsetOf(request.count))) ? errno : 0;
}

/// Buffers begin with a page, to be mapped one by one.
std::uint32_t FakeHandle::offsetOf(std::uint32_t index) const {
  constexpr std::uint32_t kPage = 4096;
  return (_format.sizeimage + kPage - 1) / kPage * kPage * index;
}

void FakeHandle::describe(v4l2_buffer& buffer, std::uint32_t index) const {
  buffer.index = index;
  buffer.length = _format.sizeimage;
  buffer.m.offset = offsetOf(index);
  buffer.flags = _camera.stamps ? V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC : 0;
  const auto& slot = _slots[index];
  buffer.bytesused = slot.bytes;
  buffer.timestamp = {slot.timeUs / 1'000'000, slot.timeUs % 1'000'000};
  buffer.sequence = _sequence;
}

int FakeHandle::dequeue(v4l2_buffer& buffer) {
  if (_filled.empty()) return EAGAIN;
  char token = 0;
  if (::read(_fd, &token, 1) != 1) return EAGAIN;
  const auto index = _filled.front();
  _filled.pop_front();
  _slots[index].queued = false;
  describe(buffer, index);
  return 0;
}

/// The camera itself, from STREAMON to STREAMOFF.
void FakeHandle::produce() {
  std::unique_lock held(_lock);
  const auto picture = draw();
  for (std::uint32_t count = 0; _streaming; ++count) {
    if (static_cast<int>(count) == _camera.stall) break;
    _wake.wait_for(held, std::chrono::microseconds(1'000'000 / _fps), [&] { return !_streaming; });
    if (static_cast<int>(count) == _camera.unplug) {
      _gone = true;
      ::close(_peer);
      _peer = -1;
      break;
    }
    if (!_streaming || _queued.empty()) continue;
    const auto index = _queued.front();
    _queued.pop_front();
    const bool cut = _camera.corrupt > 0 && static_cast<int>(count) % _camera.corrupt == 0;
    const auto bytes =
        std::min<std::size_t>(cut ? picture.size() / 2 : picture.size(), _format.sizeimage);
    if (::pwrite(_memory, picture.data(), bytes, offsetOf(index)) < 0) break;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    _slots[index].bytes = static_cast<std::uint32_t>(bytes);
    _slots[index].timeUs =
        _camera.stamps ? std::chrono::duration_cast<std::chrono::microseconds>(now).count() : 0;
    _filled.push_back(index);
    ++_sequence;
    if (::write(_peer, "p", 1) != 1) break;
  }
}

std::vector<std::uint8_t> FakeHandle::draw() const {
  if (_format.pixelformat == V4L2_PIX_FMT_MJPEG) return drawJpeg(_format);
  std::vector<std::uint8_t> bytes(_format.sizeimage);
  const auto stride = _format.bytesperline;
  const auto chroma = stride * _format.height;
  for (std::uint32_t y = 0; y < _format.height; ++y)
    for (std::uint32_t x = 0; x < _format.width; ++x) {
      const auto colour = colourAt(x, y, _format);
      const auto half = x % 2 == 0 ? colour.u : colour.v;
      const auto quarter = y / 2 * (stride / 2) + x / 2;
      switch (_format.pixelformat) {
        case V4L2_PIX_FMT_YUYV:
          bytes[y * stride + x * 2] = colour.y;
          bytes[y * stride + x * 2 + 1] = half;
          break;
        case V4L2_PIX_FMT_UYVY:
          bytes[y * stride + x * 2] = half;
          bytes[y * stride + x * 2 + 1] = colour.y;
          break;
        case V4L2_PIX_FMT_NV12:
          bytes[y * stride + x] = colour.y;
          bytes[chroma + y / 2 * stride + x] = half;
          break;
        case V4L2_PIX_FMT_YUV420:
          bytes[y * stride + x] = colour.y;
          bytes[chroma + quarter] = colour.u;
          bytes[chroma + stride / 2 * (_format.height / 2) + quarter] = colour.v;
          break;
        default:
          return bytes;
      }
    }
  return bytes;
}

}  // namespace kestrova::test
