#include <kestrova/platform/linux/capture/PictureConverter.h>
#include <kestrova/platform/linux/capture/V4l2Cameras.h>
#include <kestrova/platform/linux/capture/V4l2Device.h>

#include <poll.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

using Clock = std::chrono::steady_clock;

/// One is filled, one is read, two wait.
constexpr std::uint32_t kBuffers = 4;
constexpr auto kStallTime = std::chrono::seconds(3);
/// Faults of one picture are passed over; so many without a picture between them are the camera's.
constexpr int kMostFaultsInARow = 30;
constexpr std::int64_t kOldestPictureUs = 1'000'000;
constexpr std::uint32_t kLargestSide = 8192;

std::int64_t nowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
      .count();
}

/// A driver's buffer in our memory.
class MappedBuffer {
public:
  MappedBuffer(const V4l2Device& device, const v4l2_buffer& buffer)
      : _size(buffer.length),
        _data(::mmap(nullptr, _size, PROT_READ | PROT_WRITE, MAP_SHARED, device.fd(),
                     static_cast<off_t>(buffer.m.offset))) {}
  ~MappedBuffer() {
    if (isMapped()) ::munmap(_data, _size);
  }
  MappedBuffer(MappedBuffer&& other) noexcept
      : _size(other._size), _data(std::exchange(other._data, MAP_FAILED)) {}
  MappedBuffer& operator=(MappedBuffer&&) = delete;

  bool isMapped() const { return _data != MAP_FAILED; }
  std::span<const std::uint8_t> first(std::size_t bytes) const {
    return {static_cast<const std::uint8_t*>(_data), std::min(bytes, _size)};
  }

private:
  std::size_t _size;
  void* _data;
};

v4l2_buffer describeBuffer(std::uint32_t index) {
  v4l2_buffer buffer{};
  buffer.index = index;
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  return buffer;
}

/// Streams from one camera into memory that it shares with the kernel.
class V4l2Source final : public PictureSource {
public:
  V4l2Source(std::string uniqueId, CaptureFormat wanted)
      : _uniqueId(std::move(uniqueId)), _wanted(wanted) {}
  ~V4l2Source() override;
  std::string open() override;
  std::string run(const StopSignal& stop, const Deliver& deliver) override;

private:
  std::string find();
  std::string setFormat();
  std::string mapBuffers();
  /// Whether to go on; else `_failure` tells why.
  bool takePicture(const Deliver& deliver);
  bool fault(int error);
  std::int64_t captureTime(const v4l2_buffer& buffer);
  std::string errorText(int error) const { return cameraErrorText(error, _path); }

  const std::string _uniqueId;
  const CaptureFormat _wanted;
  std::string _path;
  std::unique_ptr<V4l2Device> _device;
  std::vector<MappedBuffer> _buffers;
  std::unique_ptr<PictureConverter> _converter;
  bool _streaming = false;
  Clock::time_point _lastPicture;
  std::int64_t _lastTimestampUs = 0;
  int _faults = 0;  // in a row
  std::string _failure;
};

V4l2Source::~V4l2Source() {
  if (!_streaming) return;
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  _device->control(VIDIOC_STREAMOFF, &type);
}

std::string V4l2Source::open() {
  if (auto error = find(); !error.empty()) return error;
  _device = std::make_unique<V4l2Device>(_path);
  if (!_device->isOpen()) return errorText(_device->error());
  if (!_device->camera()) return _path + " is no camera";
  if (auto error = setFormat(); !error.empty()) return error;
  if (auto error = mapBuffers(); !error.empty()) return error;
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (const int error = _device->control(VIDIOC_STREAMON, &type)) return errorText(error);
  _streaming = true;
  return {};
}

/// A camera may have got another device file since it was listed.
std::string V4l2Source::find() {
  if (_uniqueId.starts_with("/")) {
    _path = _uniqueId;
    return {};
  }
  const auto listing = listCameras();
  for (const auto& camera : listing.cameras)
    if (camera.device.uniqueId == _uniqueId) _path = camera.path;
  if (!_path.empty()) return {};
  return "there is no such camera: " + _uniqueId +
         (listing.refused > 0 ? " (some cameras may not be opened)" : "");
}

std::string V4l2Source::setFormat() {
  const auto mode = chooseMode(_device->modes(), _wanted);
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  format.fmt.pix.width = static_cast<std::uint32_t>(mode ? mode->width : _wanted.width);
  format.fmt.pix.height = static_cast<std::uint32_t>(mode ? mode->height : _wanted.height);
  format.fmt.pix.pixelformat = mode ? mode->fourcc : V4L2_PIX_FMT_YUYV;
  format.fmt.pix.field = V4L2_FIELD_ANY;
  if (const int error = _device->control(VIDIOC_S_FMT, &format)) return errorText(error);
  // The driver may give something else than what was asked for.
  const auto& given = format.fmt.pix;
  if (!isReadable(given.pixelformat))
    return "the camera " + _path + " delivers pictures as '" + fourccText(given.pixelformat) +
           "', which can't be read";
  if (given.width < 1 || given.width > kLargestSide || given.height < 1 ||
      given.height > kLargestSide || given.bytesperline > kLargestSide * 8)
    return "the camera " + _path + " delivers pictures of an impossible size";
  _converter = std::make_unique<PictureConverter>(given);

  v4l2_streamparm rate{};
  rate.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  rate.parm.capture.timeperframe = {1, static_cast<std::uint32_t>(_wanted.fps)};
  _device->control(VIDIOC_S_PARM, &rate);  // a camera of one rate refuses
  return {};
}

std::string V4l2Source::mapBuffers() {
  v4l2_requestbuffers request{};
  request.count = kBuffers;
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_MMAP;
  if (const int error = _device->control(VIDIOC_REQBUFS, &request)) return errorText(error);
  if (request.count == 0) return errorText(ENOMEM);
  for (std::uint32_t i = 0; i < request.count; ++i) {
    auto buffer = describeBuffer(i);
    if (const int error = _device->control(VIDIOC_QUERYBUF, &buffer)) return errorText(error);
    if (!_buffers.emplace_back(*_device, buffer).isMapped()) return errorText(errno);
    if (const int error = _device->control(VIDIOC_QBUF, &buffer)) return errorText(error);
  }
  return {};
}

std::string V4l2Source::run(const StopSignal& stop, const Deliver& deliver) {
  _lastPicture = Clock::now();
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(_lastPicture + kStallTime - Clock::now());
    if (left.count() <= 0)
      return "the camera " + _path +
             (_faults > 0 ? " delivers no undamaged pictures any more"
                          : " stopped delivering pictures");
    std::array<pollfd, 2> waiting{pollfd{_device->fd(), POLLIN, 0}, pollfd{stop.fd(), POLLIN, 0}};
    if (::poll(waiting.data(), waiting.size(), static_cast<int>(left.count())) < 0 &&
        errno != EINTR)
      return errorText(errno);
    if (waiting[1].revents != 0) return {};
    if (waiting[0].revents == 0) continue;
    const bool broken = (waiting[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    if (!takePicture(deliver)) return _failure;
    // Nothing will come from it, and waiting for it would return at once.
    if (broken) return errorText(ENODEV);
  }
}

bool V4l2Source::takePicture(const Deliver& deliver) {
  auto buffer = describeBuffer(0);
  if (const int error = _device->control(VIDIOC_DQBUF, &buffer))
    return error == EAGAIN || fault(error);
  if (buffer.index >= _buffers.size()) return fault(EPROTO);
  VideoFrame frame;
  frame.timestampUs = captureTime(buffer);
  if (!(buffer.flags & V4L2_BUF_FLAG_ERROR))
    frame.buffer = _converter->convert(_buffers[buffer.index].first(buffer.bytesused));
  // Given back before anyone looks at the picture: the camera may need it.
  if (const int error = _device->control(VIDIOC_QBUF, &buffer)) return fault(error);
  if (!frame.buffer) {
    ++_faults;
    return true;
  }
  _faults = 0;
  _lastPicture = Clock::now();
  deliver(frame);
  return true;
}

/// A disturbed transfer (EIO) is passed over for a while.
bool V4l2Source::fault(int error) {
  if (error == EIO && ++_faults < kMostFaultsInARow) return true;
  _failure = errorText(error);
  return false;
}

std::int64_t V4l2Source::captureTime(const v4l2_buffer& buffer) {
  const auto now = nowUs();
  const auto stamp = std::int64_t{buffer.timestamp.tv_sec} * 1'000'000 + buffer.timestamp.tv_usec;
  const bool monotonic =
      (buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  const bool plausible = monotonic && stamp <= now && stamp > now - kOldestPictureUs;
  const auto time = plausible && stamp > _lastTimestampUs ? stamp : now;
  _lastTimestampUs = std::max(time, _lastTimestampUs + 1);
  return _lastTimestampUs;
}

}  // namespace

std::unique_ptr<PictureSource> makeV4l2Source(const AVCaptureDevice& device,
                                              const CaptureFormat& format, int fps) {
  return std::make_unique<V4l2Source>(device.uniqueId,
                                      CaptureFormat{format.width, format.height, fps});
}

}  // namespace kestrova
