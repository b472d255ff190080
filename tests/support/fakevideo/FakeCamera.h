#pragma once

#include <linux/videodev2.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestrova::test {

struct FakeMode {
  std::uint32_t fourcc;
  std::uint32_t width;
  std::uint32_t height;
  std::uint32_t fps;
};

/// One camera as it is described.
struct FakeCamera {
  std::string path;
  std::string card = "Fake Camera";
  std::string bus = "platform:fake";
  std::vector<FakeMode> modes;
  bool metadata = false;
  bool busy = false;
  bool hang = false;
  bool stamps = true;
  int openError = 0;
  int unplug = -1;
  int stall = -1;
  int corrupt = 0;
  std::uint32_t give = 0;
  std::uint32_t pad = 0;
};

std::vector<FakeCamera> parseFakeCameras(const std::string& text);

/// An open device file: a socket that is readable while a picture waits.
class FakeHandle {
public:
  explicit FakeHandle(FakeCamera camera);
  ~FakeHandle();
  int fd() const { return _fd; }
  int memory() const { return _memory; }
  /// 0, or the errno.
  int control(unsigned long request, void* argument);
  void release();
  void stop();

private:
  struct Slot {
    bool queued = false;
    std::uint32_t bytes = 0;
    std::int64_t timeUs = 0;
  };
  int enumerate(unsigned long request, void* argument);
  int stream(unsigned long request, void* argument);
  int setFormat(v4l2_pix_format& format, bool apply);
  int requestBuffers(v4l2_requestbuffers& request);
  int dequeue(v4l2_buffer& buffer);
  std::uint32_t offsetOf(std::uint32_t index) const;
  void describe(v4l2_buffer& buffer, std::uint32_t index) const;
  void produce();
  std::vector<std::uint8_t> draw() const;

  const FakeCamera _camera;
  int _fd = -1;
  int _memory = -1;
  std::thread _producer;
  std::mutex _lock;
  std::condition_variable _wake;
  // Under _lock:
  int _peer = -1;
  v4l2_pix_format _format{};
  std::vector<Slot> _slots;
  std::deque<std::uint32_t> _queued;
  std::deque<std::uint32_t> _filled;
  std::uint32_t _fps = 30;
  bool _streaming = false;
  bool _released = false;
  bool _gone = false;
  std::uint32_t _sequence = 0;
};

}  // namespace kestrova::test
