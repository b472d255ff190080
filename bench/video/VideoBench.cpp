// What a picture of the camera costs on its way to the source that sends it: as it is, with another
// background behind the person in it, and with the room blurred. One thread, a photo of a person,
// the three in turn with each other. Then a still picture.
//
//   bench_video [pictures of each round] [rounds]

#include <kestrova/media/FramePath.h>
#include <kestrova/media/KestrovaBackgroundProcessor.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/realtime/Base64.h>
#include <kestrova/session/Kestrova.h>

#include <libyuv.h>
#include <time.h>

#include "../pubsub/Allocations.h"
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova::bench {
namespace {

struct Cost {
  std::vector<double> cpuMs;
  std::vector<double> wallMs;
  std::uint64_t allocationsOfPixels = 0;
  double allocationsEach = 0;
};

[[noreturn]] void giveUp(const std::string& why) {
  std::fprintf(stderr, "bench_video: %s\n", why.c_str());
  std::exit(1);
}

/// Of this thread: what others take of the processor doesn't count.
double cpuMs() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double wallMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::milli>(now).count();
}

double part(std::vector<double> values, double place) {
  const auto at = static_cast<std::size_t>(place * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
  return values[at];
}

Image photo() {
  std::ifstream file(KESTROVA_PERSON_PHOTO, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(file), {});
  auto image = Platform::current()->imaging->decode(bytes);
  if (!image) giveUp("there is no photo in " KESTROVA_PERSON_PHOTO);
  return *image;
}

VideoFrame frameOf(const Image& image, int width, int height) {
  const auto scaled = Platform::current()->imaging->resize(image, width, height);
  auto buffer = std::make_shared<I420Buffer>(width, height);
  const auto view = buffer->i420();
  libyuv::ARGBToI420(scaled->pixels.data(), width * 4, buffer->mutableY(), view.strideY,
                     buffer->mutableU(), view.strideU, buffer->mutableV(), view.strideV, width,
                     height);
  return {.buffer = std::move(buffer), .timestampUs = 1};
}

/// Waits for the download, which is told on the main queue.
std::shared_ptr<KestrovaBackgroundProcessor> processorWith(const std::string& url) {
  std::mutex lock;
  std::condition_variable changed;
  std::optional<bool> taken;
  auto processor = std::make_shared<KestrovaBackgroundProcessor>(url, [&](bool isThere) {
    std::scoped_lock held(lock);
    taken = isThere;
    changed.notify_one();
  });
  std::unique_lock held(lock);
  changed.wait(held, [&] { return taken.has_value(); });
  if (!*taken) giveUp("no background from " + url);
  return processor;
}

void measure(FramePath& path, RTCVideoSource& source, const VideoFrame& frame, int pictures,
             Cost& into) {
  const auto pixelsBefore = largeAllocations();
  const auto before = allocations();
  for (int i = 0; i < pictures; ++i) {
    const double cpu = cpuMs();
    const double wall = wallMs();
    path.process(frame, source);
    into.cpuMs.push_back(cpuMs() - cpu);
    into.wallMs.push_back(wallMs() - wall);
  }
  into.allocationsOfPixels += largeAllocations() - pixelsBefore;
  into.allocationsEach = static_cast<double>(allocations() - before) / pictures;
}

void print(const char* name, const Cost& cost) {
  std::printf("%-24s %7.2f %7.2f %7.2f   %7.2f   %8llu %10.1f\n", name, part(cost.cpuMs, 0),
              part(cost.cpuMs, 0.5), part(cost.cpuMs, 0.9), part(cost.wallMs, 0.5),
              static_cast<unsigned long long>(cost.allocationsOfPixels), cost.allocationsEach);
}

void road(const Image& image, int width, int height, int pictures, int rounds) {
  const auto frame = frameOf(image, width, height);
  const auto source = Platform::current()->peerConnectionFactory()->videoSource();
  const auto track = Platform::current()->peerConnectionFactory()->videoTrack(source, "bench");
  const auto url = std::string("file://") + KESTROVA_PERSON_PHOTO;
  FramePath paths[3];
  paths[1].setVideoProcessor(processorWith(url));
  paths[2].setVideoProcessor(
      std::make_shared<KestrovaBackgroundProcessor>(KestrovaBackgroundProcessor::Blur()));
  Cost costs[3];
  for (auto& path : paths)
    for (int i = 0; i < 5; ++i) path.process(frame, *source);
  for (int round = 0; round < rounds; ++round)
    for (int i = 0; i < 3; ++i)
      measure(paths[(i + round) % 3], *source, frame, pictures, costs[(i + round) % 3]);
  std::printf("\n%dx%d, ms a picture        least  median     90%%  median    pixels\n", width,
              height);
  std::printf("%-24s %7s %7s %7s   %7s   %8s %10s\n", "", "CPU", "CPU", "CPU", "wall", "allocated",
              "news each");
  print("as it is", costs[0]);
  print("another background", costs[1]);
  print("the room, blurred", costs[2]);
}

void still(const Image& image) {
  auto& imaging = *Platform::current()->imaging;
  const auto frame = frameOf(image, 1280, 720);
  std::vector<double> times;
  std::size_t size = 0;
  for (int i = 0; i < 30; ++i) {
    const double before = cpuMs();
    const auto upright = imaging.rotate(*imaging.render(*frame.buffer), 0);
    const auto scaled = imaging.resize(*upright, 1280, 720);
    size = base64Encoded(*imaging.encodeJpeg(*scaled, 1.0)).size();
    times.push_back(cpuMs() - before);
  }
  std::printf("\nstill picture of 1280x720: %.2f ms of CPU (median; least %.2f), %zu characters\n",
              part(times, 0.5), part(times, 0), size);
}

}  // namespace
}  // namespace kestrova::bench

int main(int count, char** arguments) {
  using namespace kestrova;
  const int pictures = count > 1 ? std::atoi(arguments[1]) : 60;
  const int rounds = count > 2 ? std::atoi(arguments[2]) : 5;
  if (pictures < 1 || rounds < 1) bench::giveUp("usage: bench_video [pictures] [rounds]");
  Kestrova::setLogLevel(LogLevel::none);
  const auto image = bench::photo();
  bench::road(image, 1280, 720, pictures, rounds);
  bench::road(image, 1920, 1080, pictures, rounds);
  bench::still(image);
}
