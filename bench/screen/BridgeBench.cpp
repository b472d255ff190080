#include "BridgeBench.h"

#include <kestrova/media/SocketConnectionFrameReader.h>
#include <kestrova/platform/linux/capture/TestPicture.h>
#include <kestrova/platform/linux/screen/LinuxRenderer.h>
#include <kestrova/platform/linux/screen/LinuxUnixSockets.h>

#include <libyuv/convert_argb.h>
#include <sys/socket.h>
#include <time.h>
#include <turbojpeg.h>
#include <unistd.h>

#include "Process.h"
#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace kestrova::bench {
namespace {

constexpr int width = 1920, height = 1080, stride = width * 4;
constexpr int rounds = 60;

/// Of the calling thread, in milliseconds: what others do on the machine is not in it.
double threadMs() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

/// A screen's picture: the test picture is as full of edges as a desktop.
std::string makeJpeg() {
  I420Buffer planes(width, height);
  TestPicture(width, height, "Bench").draw(planes, 1'700'000'000'000, 7);
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(stride) * height);
  const auto view = planes.i420();
  libyuv::I420ToARGB(view.y, view.strideY, view.u, view.strideU, view.v, view.strideV,
                     pixels.data(), stride, width, height);
  // Grain, as photos and windows have it: without any, a picture is decoded too quickly to compare.
  unsigned random = 1;
  for (std::size_t i = 0; i < pixels.size(); i += 4) {
    random = random * 1664525 + 1013904223;
    pixels[i + 1] =
        static_cast<std::uint8_t>(std::clamp(int(pixels[i + 1]) + int(random >> 28), 0, 255));
  }
  auto* encoder = ::tjInitCompress();
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  ::tjCompress2(encoder, pixels.data(), width, stride, height, TJPF_BGRX, &bytes, &size, TJSAMP_420,
                80, 0);
  std::string jpeg(reinterpret_cast<const char*>(bytes), size);
  ::tjFree(bytes);
  ::tjDestroy(encoder);
  return jpeg;
}

class Received final : public InputStream {
public:
  explicit Received(int handle) : _handle(handle) {}
  std::ptrdiff_t read(std::uint8_t* buffer, std::size_t maxLength) override {
    return _sockets->read(_handle, buffer, maxLength);
  }

private:
  const std::shared_ptr<UnixSockets> _sockets = makeUnixSockets();
  const int _handle;
};

}  // namespace

void measureBridge() {
  const auto jpeg = makeJpeg();
  const auto frame = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(jpeg.size()) +
                     "\r\nBuffer-Width: 1920\r\nBuffer-Height: 1080\r\nBuffer-Orientation: 1"
                     "\r\n\r\n" +
                     jpeg;
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
  const int room = 4 << 20;
  ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
  const auto reader = std::make_shared<SocketConnectionFrameReader>(makePictureRenderer());
  int pictures = 0;
  reader->didCapture = [&](const auto&, int) { ++pictures; };
  Received stream(ends[1]);

  auto* decoder = ::tjInitDecompress();
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(stride) * height);
  std::vector<double> alone;
  std::vector<double> bridged;
  for (int round = 0; round < rounds; ++round) {
    auto begin = threadMs();
    ::tjDecompress2(decoder, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size(),
                    pixels.data(), width, stride, height, TJPF_BGRA, 0);
    alone.push_back(threadMs() - begin);
    std::thread sending([&] {
      for (std::size_t sent = 0; sent < frame.size();)
        sent += static_cast<std::size_t>(
            std::max<ssize_t>(0, ::send(ends[0], frame.data() + sent, frame.size() - sent, 0)));
    });
    sending.join();
    begin = threadMs();
    while (pictures == round) reader->stream(stream, StreamEvent::hasBytesAvailable, "");
    bridged.push_back(threadMs() - begin);
  }
  ::tjDestroy(decoder);
  for (const int end : ends) ::close(end);
  const auto decode = spreadOf(alone);
  const auto bridge = spreadOf(bridged);
  std::printf("1080p JPEG of %zu kB: decoded alone %.2f ms, through the bridge %.2f ms: %.2fx\n",
              jpeg.size() / 1024, decode.median, bridge.median, bridge.median / decode.median);
}

}  // namespace kestrova::bench
