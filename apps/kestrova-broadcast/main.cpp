#include <kestrova/platform/linux/screen/BroadcastProcess.h>
#include <kestrova/platform/linux/screen/LinuxNotifications.h>
#include <kestrova/platform/linux/screen/PrivateFolder.h>

#include <boost/asio/system_executor.hpp>

#include "FrameSender.h"
#include "JpegEncoder.h"
#include "ScreenSource.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace kestrova::broadcast {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto connectPause = 50ms;
/// A program that began to listen after the first notification hears one of these.
constexpr auto notificationPause = 1s;
/// A screen that stands still is sent again after this, in case a picture was lost on the way.
constexpr auto repeatPause = 1s;

std::unique_ptr<ScreenSource> makeSource(const Options& options, const Ending& ending) {
  if (options.pattern) return makePatternSource(options.pattern->width, options.pattern->height);
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  const bool isWayland = wayland && *wayland && !options.window;
  if (options.source == "portal" || (options.source.empty() && isWayland))
    return makePortalSource(options, ending);
  return makeX11Source(options);
}

/// Nobody is told of a screen before there is a picture of it. \throws SourceFailure when none
/// comes
void awaitPicture(ScreenSource& source, const Ending& ending) {
  while (!source.take()) ending.waitUntil(Clock::now() + connectPause);
}

/// Says that a share begins, as long as it takes until somebody is there to take it.
void meet(FrameSender& sender, const std::string& folder, CrossProcessNotifications& center,
          const Ending& ending) {
  std::optional<Clock::time_point> saidAt;
  while (!sender.connect(folder + "/rtc_SSFD")) {
    if (const auto now = Clock::now(); !saidAt || now - *saidAt >= notificationPause) {
      center.post(folder, "kestrova.flutter.startScreenShare");
      saidAt = now;
    }
    ending.waitUntil(Clock::now() + connectPause);
  }
}

void sendPictures(ScreenSource& source, const Options& options, FrameSender& sender) {
  JpegEncoder encoder(options.quality, options.scale);
  const auto period = std::chrono::nanoseconds(1s) / options.fps;
  auto due = Clock::now();
  std::optional<Clock::time_point> sentAt;
  bool isPending = false;
  for (;;) {
    const auto picture = source.take();
    const auto now = Clock::now();
    if (picture) {
      isPending = isPending || picture->isNew;
      if (isPending || !sentAt || now - *sentAt >= repeatPause) {
        const auto encoded = encoder.encode(picture->view);
        if (!encoded.bytes.empty()) sender.send(encoded);
        sentAt = now;
        isPending = false;
      }
    }
    due = std::max(due + std::chrono::duration_cast<Clock::duration>(period), Clock::now());
    sender.waitUntil(due);
  }
}

int complain(const std::string& problem, int code) {
  std::fprintf(stderr, "kestrova-broadcast: %s\n", problem.c_str());
  return code;
}

/// \returns the exit code
int share(const Options& options, const std::string& folder, CrossProcessNotifications& center) {
  const Ending ending(options.lifeline);
  // Of a failure the exit code tells more, and the closed connection as much.
  const auto sayStopped = [&] { center.post(folder, "kestrova.flutter.stopScreenShare"); };
  try {
    const auto source = makeSource(options, ending);
    awaitPicture(*source, ending);
    FrameSender sender(ending);
    meet(sender, folder, center, ending);
    sendPictures(*source, options, sender);
  } catch (const Ending::Reached&) {
    sayStopped();
  } catch (const FrameSender::Closed&) {
    // Whoever closed it knows, or has turned this one away: then the share is another sender's.
  } catch (const SourceClosed& closed) {
    sayStopped();
    return complain(closed.what(), broadcastExit::finished);
  } catch (const SourceRefused& refusal) {
    return complain(refusal.what(), broadcastExit::refused);
  } catch (const std::exception& failure) {
    return complain(failure.what(), broadcastExit::failed);
  }
  return broadcastExit::finished;
}

int main(int argc, char** argv) {
  Options options;
  try {
    options = parseOptions({argv + 1, argv + argc});
  } catch (const UsageError& error) {
    return complain(std::string(error.what()) + "; see kestrova-broadcast --help",
                    broadcastExit::badArguments);
  }
  if (options.help) return std::fputs(usageText().c_str(), stdout) < 0;
  if (options.version) return std::puts("kestrova-broadcast " KESTROVA_VERSION) < 0;
  const auto folder = groupFolder(options.group);
  if (!folder)
    return complain("there is no folder of this user alone to meet in", broadcastExit::failed);
  const auto center = makeNotifications(boost::asio::system_executor());
  return share(options, *folder, *center);
}

}  // namespace
}  // namespace kestrova::broadcast

int main(int argc, char** argv) {
  return kestrova::broadcast::main(argc, argv);
}
