#include <kestrova/kestrova.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <sys/resource.h>
#include <unistd.h>

#include "BridgeBench.h"
#include "LocalService.h"
#include "Process.h"
#include "Times.h"
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

// What sharing a screen costs: the bridge between the two processes beside libturbojpeg's decoding
// alone, and a test picture of 1080p at 15 pictures a second from its program to the remote sink.
//
//     bench_screen [seconds]

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using bench::Times;

std::int64_t wallMs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// How old the pictures are that arrive.
class Ages final : public VideoSink {
public:
  void onFrame(const VideoFrame& frame) override {
    const auto view = frame.buffer->i420();
    const auto drawn = readTestPictureClock(view);
    if (!drawn) return;
    std::scoped_lock held(_lock);
    if (_last == *drawn) return;  // repeated
    _last = *drawn;
    _ages.push_back(static_cast<double>(wallMs() - *drawn));
    width = view.width;
  }
  std::vector<double> take() {
    std::scoped_lock held(_lock);
    return std::exchange(_ages, {});
  }
  std::atomic<int> width{0};

private:
  std::mutex _lock;
  std::vector<double> _ages;
  std::int64_t _last = 0;
};

/// The processor time that the sender has used, in seconds.
double senderSeconds() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream children(task.path() / "children");
    for (pid_t child = 0; children >> child;) {
      std::ifstream file("/proc/" + std::to_string(child) + "/stat");
      const std::string text((std::istreambuf_iterator<char>(file)), {});
      if (text.find("(kestrova-broad") == std::string::npos) continue;
      long user = 0;
      long system = 0;
      std::sscanf(text.c_str() + text.rfind(')') + 2,
                  "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &user, &system);
      return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    }
  }
  return 0;
}

std::shared_ptr<Meeting> join(const test::LocalService& service, const std::string& id,
                              Times& times) {
  auto meeting = Kestrova::initMeeting({.meetingId = "bench",
                                        .participantId = id,
                                        .participantName = id,
                                        .signalingBaseUrl = service.address()});
  meeting->listen({.onMeetingJoined = [&times, id](const auto&) { times.mark(id); }}).detach();
  meeting->join();
  times.await(id);
  return meeting;
}

void measureShare(std::chrono::seconds length) {
  const test::LocalService service;
  Kestrova::setLogLevel(LogLevel::error);
  Kestrova::config(service.token());
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::configureScreenShare({.screenSharingExtension = KESTROVA_BROADCAST,
                                  .arguments = {"--pattern", "1920x1080", "--fps", "15"}});
  Times times;
  const auto ages = std::make_shared<Ages>();
  const auto watcher = join(service, "watcher", times);
  const auto whenShared = [&](const auto& stream, const auto&) {
    stream->videoTrack()->addSink(ages);
    times.mark("share");
  };
  const auto listening = watcher->listen({.onParticipantJoined = [&](const auto& participant) {
    participant->listen({.onStreamEnabled = whenShared}).detach();
    times.mark("seen");
  }});
  const auto sharer = join(service, "sharer", times);
  times.await("seen");
  const auto asked = bench::Clock::now();
  sharer->enableScreenShare();
  const auto start = bench::ms(asked, times.await("share"));
  std::this_thread::sleep_for(5s);  // until the engine has found its bitrate
  ages->take();
  const double before = bench::cpuSeconds();
  const double senderBefore = senderSeconds();
  const auto begin = bench::Clock::now();
  std::this_thread::sleep_for(length);
  const double seconds = bench::ms(begin, bench::Clock::now()) / 1000;
  const double meetings = bench::cpuSeconds() - before;
  const double sender = senderSeconds() - senderBefore;
  const auto seen = ages->take();
  const auto delay = bench::spreadOf(seen);
  std::printf("1080p15: announced after %.0f ms; %.1f pictures a second of %d pixels' width\n",
              start, static_cast<double>(seen.size()) / seconds, ages->width.load());
  std::printf("delay from drawing to sink: median %.0f ms (%.0f to %.0f)\n", delay.median,
              delay.low, delay.high);
  std::printf(
      "processor, of one core: sender %.0f %%, both meetings with coding and decoding "
      "%.0f %%; load of the machine %.1f\n",
      sender / seconds * 100, meetings / seconds * 100, bench::machineLoad());
  sharer->leave();
  watcher->leave();
  sharer->waitUntilOver(5s);
  watcher->waitUntilOver(5s);
}

}  // namespace
}  // namespace kestrova

int main(int argc, char** argv) {
  kestrova::bench::measureBridge();
  kestrova::measureShare(std::chrono::seconds(argc > 1 ? std::max(1, std::atoi(argv[1])) : 10));
}
