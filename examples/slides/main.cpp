// slides SERVICE MEETING [NEXT-MEETING], with the access token in KESTROVA_TOKEN: shows six slides
// as a camera, one a second, then moves on to the next meeting and shows them there.
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>

#include <boost/asio/steady_timer.hpp>

#include "support/Stay.h"
#include <chrono>
#include <cstdlib>
#include <vector>

using namespace kestrova;

constexpr int width = 640, height = 360, slides = 6, picturesASecond = 10;

/// A slide is a colour with as many white bars as its number.
std::vector<std::uint8_t> drawSlide(int number) {
  std::vector<std::uint8_t> pixels(std::size_t(width) * height * 4, 255);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      if (y > 100 && y < 260 && x % 100 > 30 && x % 100 < 70 && x / 100 < number) continue;
      auto* pixel = &pixels[(std::size_t(y) * width + x) * 4];
      pixel[0] = std::uint8_t(40 * number), pixel[1] = 80,
      pixel[2] = std::uint8_t(240 - 40 * number);
    }
  return pixels;
}

class Show {
public:
  Show(boost::asio::io_context& loop, std::string next) : _next(std::move(next)), _tick(loop) {
    for (int number = 1; number <= slides; ++number) _slides.push_back(drawSlide(number));
  }
  std::shared_ptr<CustomRTCMediaStream> stream() { return _camera->makeStream(); }

  /// Begins at the first slide. Keeps the meeting weakly, so that letting go of it ends the show.
  void begin(std::weak_ptr<Meeting> meeting) {
    _shown = 0;
    show(std::move(meeting));
  }
  void stop() { _tick.cancel(); }

private:
  void show(std::weak_ptr<Meeting> weak) {
    const auto meeting = weak.lock();
    if (!meeting) return;
    const int second = _shown++ / picturesASecond;
    if (second == slides && !_next.empty()) return meeting->switchTo(std::exchange(_next, {}));
    const auto& picture = _slides[std::size_t(second % slides)];
    _camera->push(BGRAView{picture.data(), width * 4, width, height});
    _tick.expires_after(std::chrono::milliseconds(1000 / picturesASecond));
    _tick.async_wait([this, weak](const auto& error) {
      if (!error) show(weak);
    });
  }

  std::string _next;
  std::vector<std::vector<std::uint8_t>> _slides;
  const std::shared_ptr<VideoFrameSource> _camera = VideoFrameSource::make();
  boost::asio::steady_timer _tick;
  int _shown = 0;
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if ((argc != 3 && argc != 4) || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... slides SERVICE MEETING [NEXT-MEETING]\n", stderr),
           2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  Show show(loop, argc == 4 ? argv[3] : "");
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Slides",
                                        .webcamEnabled = true,
                                        .customCameraVideoStream = show.stream(),
                                        .multiStream = false,
                                        .signalingBaseUrl = argv[1]});
  const auto listening =
      meeting->listen({.onMeetingJoined =
                           [&, weak = std::weak_ptr(meeting)](const auto& moved) {
                             std::printf("joined %s\n", moved ? moved->c_str() : argv[2]),
                                 std::fflush(stdout);
                             show.begin(weak);
                           },
                       .onMeetingLeft = [&](LeaveReason) { show.stop(); }});
  return stay(loop, std::move(meeting));
}
