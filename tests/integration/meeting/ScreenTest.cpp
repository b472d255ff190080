#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include "MeetingFixture.h"
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

namespace kestrova::test {
namespace {

constexpr const char* sender = KESTROVA_BROADCAST;

/// The programs that send a screen for this process.
std::set<pid_t> senders() {
  std::set<pid_t> found;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream children(task.path() / "children");
    for (pid_t child = 0; children >> child;) {
      std::string name;
      std::ifstream("/proc/" + std::to_string(child) + "/comm") >> name;
      if (name.starts_with("kestrova-broad")) found.insert(child);
    }
  }
  return found;
}

class ScreenTest : public MeetingFixture {
protected:
  ~ScreenTest() override { Kestrova::configureScreenShare({}); }

  static void usePattern() {
    Kestrova::configureScreenShare(
        {.screenSharingExtension = sender, .arguments = {"--pattern", "640x360", "--fps", "15"}});
  }
  std::shared_ptr<Attendee> joinToShare() {
    auto attendee = joinToWatch("ada");
    EXPECT_TRUE(attendee->sees("joined")) << attendee->story();
    return attendee;
  }
  static bool isAlone(Attendee& attendee) {
    return attendee.waitUntil([] { return senders().empty(); });
  }
};

TEST_F(ScreenTest, aSharedScreenIsSeenUntilItIsSwitchedOff) {
  usePattern();
  const auto bob = joinToWatch("bob");
  const auto ada = joinToShare();
  for (int round = 1; round <= 2; ++round) {
    ada->meeting->enableScreenShare();
    ASSERT_TRUE(bob->seesTimes("gets share", round)) << bob->story() << ada->story();
    ASSERT_TRUE(bob->seesTimes("presenter ada", round)) << bob->story();
    EXPECT_EQ(bob->meeting->activePresenterId(), "ada");
    EXPECT_TRUE(bob->getsPictures()) << bob->story();
    ada->meeting->disableScreenShare();
    ASSERT_TRUE(bob->seesTimes("loses share", round)) << bob->story();
    ASSERT_TRUE(bob->seesTimes("presenter nobody", round)) << bob->story();
    EXPECT_TRUE(ada->seesTimes("own end share", round)) << ada->story();
    EXPECT_TRUE(isAlone(*ada));
  }
  EXPECT_EQ(ada->count("error"), 0) << ada->story();
}

TEST_F(ScreenTest, itEndsWithItsProgramAndCanBeginAgain) {
  usePattern();
  const auto bob = joinToWatch("bob");
  const auto ada = joinToShare();
  int round = 0;
  for (const int signal : {SIGKILL, SIGTERM, SIGSEGV}) {
    ++round;
    ada->meeting->enableScreenShare();
    ASSERT_TRUE(bob->seesTimes("gets share", round)) << bob->story() << ada->story();
    ASSERT_TRUE(bob->getsPictures()) << bob->story();
    const auto running = senders();
    ASSERT_EQ(running.size(), 1u);
    ::kill(*running.begin(), signal);
    EXPECT_TRUE(bob->seesTimes("loses share", round)) << bob->story();
    EXPECT_TRUE(ada->seesTimes("own end share", round)) << ada->story();
    EXPECT_TRUE(isAlone(*ada));
  }
}

TEST_F(ScreenTest, aLostConnectionInterruptsIt) {
  usePattern();
  const auto bob = joinToWatch("bob");
  const auto ada = joinToShare();
  ada->meeting->enableScreenShare();
  ASSERT_TRUE(bob->sees("gets share")) << bob->story() << ada->story();
  ASSERT_TRUE(bob->getsPictures());
  const auto before = senders();
  EXPECT_TRUE(boolean(service.control("dropSocket", {{"roomId", "integration"}, {"peerId", "ada"}}),
                      "ok", false));
  ASSERT_TRUE(ada->seesTimes("joined", 2)) << ada->story();
  ASSERT_TRUE(bob->seesTimes("gets share", 2)) << bob->story();
  EXPECT_TRUE(bob->getsPictures()) << bob->story();
  EXPECT_EQ(senders(), before);
}

TEST_F(ScreenTest, nothingOfItOutlivesTheMeeting) {
  usePattern();
  for (const bool leaves : {true, false}) {
    const auto ada = joinToShare();
    ada->meeting->enableScreenShare();
    ASSERT_TRUE(ada->sees("own share")) << ada->story();
    if (leaves)
      ada->leaveAndWait();
    else
      ada->meeting.reset();
    EXPECT_TRUE(isAlone(*ada));
  }
}

/// A screen of the test's own, with a picture on it that is known.
class VirtualScreen {
public:
  VirtualScreen() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    _server = ::fork();
    if (_server == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(ends[1], STDOUT_FILENO);
      ::execlp("Xvfb", "Xvfb", "-displayfd", "1", "-screen", "0", "640x360x24", "-nolisten", "tcp",
               "-noreset", nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    std::string line;  // the display's number, once it takes connections
    for (char each = 0; ::read(ends[0], &each, 1) == 1 && each != '\n';) line += each;
    ::close(ends[0]);
    if (line.empty()) return;
    ::setenv("DISPLAY", (":" + line).c_str(), 1);
    ::unsetenv("WAYLAND_DISPLAY");
    _connection = xcb_connect(nullptr, nullptr);
    isThere = !xcb_connection_has_error(_connection);
  }
  ~VirtualScreen() {
    if (_connection) xcb_disconnect(_connection);
    endServer();
    ::unsetenv("DISPLAY");
  }
  VirtualScreen(const VirtualScreen&) = delete;
  VirtualScreen& operator=(const VirtualScreen&) = delete;

  /// Fills a rectangle. \param colour 0xRRGGBB
  void fill(std::uint32_t colour, std::int16_t x, std::int16_t y, std::uint16_t width,
            std::uint16_t height) {
    const auto root = xcb_setup_roots_iterator(xcb_get_setup(_connection)).data->root;
    const auto context = xcb_generate_id(_connection);
    xcb_create_gc(_connection, context, root, XCB_GC_FOREGROUND, &colour);
    const xcb_rectangle_t area{x, y, width, height};
    xcb_poly_fill_rectangle(_connection, root, context, 1, &area);
    xcb_free_gc(_connection, context);
    std::free(xcb_get_input_focus_reply(_connection, xcb_get_input_focus(_connection), nullptr));
  }
  void endServer() {
    if (_server <= 0) return;
    ::kill(_server, SIGTERM);
    ::waitpid(std::exchange(_server, -1), nullptr, 0);
  }
  bool isThere = false;

private:
  pid_t _server = -1;
  xcb_connection_t* _connection = nullptr;
};

/// What is seen in the middle of each quarter of the picture, as 0xYYUUVV.
class Quarters final : public VideoSink {
public:
  using Colours = std::array<std::array<int, 3>, 4>;
  void onFrame(const VideoFrame& frame) override {
    const auto view = frame.buffer->i420();
    Colours seen{};
    for (std::size_t i = 0; i < seen.size(); ++i) {
      const int x = view.width * (i % 2 ? 3 : 1) / 4;
      const int y = view.height * (i < 2 ? 1 : 3) / 4;
      seen[i] = {view.y[y * view.strideY + x], view.u[y / 2 * view.strideU + x / 2],
                 view.v[y / 2 * view.strideV + x / 2]};
    }
    std::scoped_lock held(_lock);
    _colours = seen;
  }
  bool looksLike(const std::array<std::uint32_t, 4>& rgb) const {
    std::scoped_lock held(_lock);
    for (std::size_t i = 0; i < rgb.size(); ++i) {
      const double r = rgb[i] >> 16 & 255;
      const double g = rgb[i] >> 8 & 255;
      const double b = rgb[i] & 255;
      const double expected[] = {16 + 0.257 * r + 0.504 * g + 0.098 * b,
                                 128 - 0.148 * r - 0.291 * g + 0.439 * b,
                                 128 + 0.439 * r - 0.368 * g - 0.071 * b};
      for (std::size_t plane = 0; plane < 3; ++plane)
        if (std::abs(_colours[i][plane] - expected[plane]) > 8) return false;
    }
    return true;
  }

private:
  mutable std::mutex _lock;
  Colours _colours{};
};

TEST_F(ScreenTest, aKnownScreenArrivesAsItIsAlsoForWhoComesLater) {
  VirtualScreen screen;
  if (!screen.isThere) GTEST_SKIP() << "there is no Xvfb";
  constexpr std::array<std::uint32_t, 4> first{0xC03020, 0x20A0E0, 0x30B040, 0xF0F0F0};
  for (std::size_t i = 0; i < first.size(); ++i)
    screen.fill(first[i], i % 2 ? 320 : 0, i < 2 ? 0 : 180, 320, 180);
  Kestrova::configureScreenShare({.screenSharingExtension = sender});
  const auto ada = joinToShare();
  ada->meeting->enableScreenShare();
  ASSERT_TRUE(ada->sees("own share")) << ada->story();

  const auto shows = [&](const std::string& id, const std::array<std::uint32_t, 4>& colours) {
    const auto watcher = joinToWatch(id);
    EXPECT_TRUE(watcher->sees("gets share")) << watcher->story() << ada->story();
    const auto quarters = std::make_shared<Quarters>();
    const auto stream = watcher->stream("ada", MediaType::share);
    if (!stream || !stream->videoTrack()) return false;
    stream->videoTrack()->addSink(quarters);
    return watcher->waitUntil([&] { return quarters->looksLike(colours); });
  };
  EXPECT_TRUE(shows("bob", first));
  EXPECT_TRUE(shows("grace", first));  // of a screen that has stood still since
  auto second = first;
  second[2] = 0x101010;
  screen.fill(second[2], 0, 180, 320, 180);
  EXPECT_TRUE(shows("eve", second));

  screen.endServer();
  EXPECT_TRUE(ada->sees("own end share")) << ada->story();
  EXPECT_TRUE(isAlone(*ada));
  // Without a screen there is nothing to share, and the reason is told.
  ada->meeting->enableScreenShare();
  EXPECT_TRUE(ada->sees("error 3061 ERROR_SCREENSHARE_PRODUCE_FAILED")) << ada->story();
}

}  // namespace
}  // namespace kestrova::test
