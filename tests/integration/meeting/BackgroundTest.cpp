#include <kestrova/media/KestrovaBackgroundProcessor.h>
#include <kestrova/platform/Platform.h>

#include <gmock/gmock.h>
#include <unistd.h>

#include "MeetingFixture.h"
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>

namespace kestrova::test {
namespace {

/// Looks at a corner, where the room is, and at the middle, where the person is.
class Corner final : public VideoSink {
public:
  void onFrame(const VideoFrame& frame) override {
    const auto view = frame.buffer->i420();
    const auto colour = [&](const std::uint8_t* plane, int stride, int x, int y) {
      return static_cast<int>(plane[y * stride + x]);
    };
    const int x = view.width / 2 * 9 / 10;
    const int y = view.height / 40;
    isGreen = colour(view.u, view.strideU, x, y) < 80 && colour(view.v, view.strideV, x, y) < 80;
    const int middle = view.width / 4 - view.width / 20;
    hasPerson = colour(view.v, view.strideV, middle, view.height * 3 / 10) > 150;
    if (isGreen) ++greens;
    if (!isGreen) ++others;
    ++frames;
  }
  std::atomic<bool> isGreen{false};
  std::atomic<bool> hasPerson{false};
  std::atomic<int> greens{0};
  std::atomic<int> others{0};
  std::atomic<int> frames{0};
};

class BackgroundTest : public MeetingFixture {
protected:
  BackgroundTest() {
    std::filesystem::create_directory(folder);
    const auto platform = Platform::current();
    auto& work = *platform->imaging;
    std::ifstream file(KESTROVA_PERSON_PHOTO, std::ios::binary);
    const std::string png(std::istreambuf_iterator<char>(file), {});
    const auto photo = work.decode(png);
    if (!photo) throw std::runtime_error("no photo in " KESTROVA_PERSON_PHOTO);
    // A film of one picture, which starts over at its end.
    write("camera.mjpeg", *work.encodeJpeg(*work.resize(*photo, 320, 240), 0.95));
    Image green{.width = 16, .height = 16};
    for (int i = 0; i < 16 * 16; ++i)
      for (const std::uint8_t part : {0, 200, 0, 255}) green.pixels.push_back(part);
    write("green.jpg", *work.encodeJpeg(green, 1));
    Kestrova::configureCapture({.camera = folder / "camera.mjpeg", .microphone = "none"});
  }
  ~BackgroundTest() override {
    useTone(440);
    std::filesystem::remove_all(folder);
  }
  void write(const char* name, const std::string& bytes) const {
    std::ofstream(folder / name, std::ios::binary) << bytes;
  }
  std::shared_ptr<KestrovaBackgroundProcessor> green() const {
    auto taken = std::make_shared<std::promise<bool>>();
    auto processor = std::make_shared<KestrovaBackgroundProcessor>(
        "file://" + (folder / "green.jpg").string(),
        [taken](bool isThere) { taken->set_value(isThere); });
    EXPECT_TRUE(taken->get_future().get());
    return processor;
  }
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("kestrova-room-" + std::to_string(getpid()));
};

TEST_F(BackgroundTest, OthersSeeThePersonAndNeverTheRoom) {
  const auto grace = joinToWatch("grace");
  ASSERT_TRUE(grace->sees("joined")) << grace->story();
  const auto ada = Attendee::join(service.token(), person("ada", false));
  ASSERT_TRUE(ada->sees("joined")) << ada->story();

  ada->meeting->setVideoProcessor(green());
  ada->meeting->enableWebcam();
  ASSERT_TRUE(grace->sees("gets video")) << grace->story();
  const auto corner = std::make_shared<Corner>();
  const auto stream = grace->stream("ada", MediaType::video);
  ASSERT_TRUE(stream);
  stream->videoTrack()->addSink(corner);
  EXPECT_TRUE(grace->waitUntil([&] { return corner->greens > 20 && corner->hasPerson; }))
      << corner->greens << " of " << corner->frames;
  EXPECT_EQ(corner->others, 0);

  std::promise<std::optional<std::string>> still;
  grace->other("ada")->captureImage(
      120, 160, [&](const std::optional<std::string>& jpeg) { still.set_value(jpeg); });
  const auto jpeg = still.get_future().get();
  ASSERT_TRUE(jpeg);
  EXPECT_TRUE(jpeg->starts_with("/9j/")) << "a JPEG";

  ada->meeting->setVideoProcessor(nullptr);
  EXPECT_TRUE(grace->waitUntil([&] { return !corner->isGreen && corner->hasPerson; }));
  // What others are shown survives a drop of the connection.
  ada->meeting->setVideoProcessor(green());
  EXPECT_TRUE(grace->waitUntil([&] { return corner->isGreen.load(); }));
  const int rooms = corner->others;
  service.control("dropSocket", {{"roomId", "integration"}, {"peerId", "ada"}});
  ASSERT_TRUE(grace->seesTimes("gets video", 2)) << grace->story();
  const auto again = std::make_shared<Corner>();
  ASSERT_TRUE(grace->waitUntil([&] { return grace->stream("ada", MediaType::video) != nullptr; }));
  grace->stream("ada", MediaType::video)->videoTrack()->addSink(again);
  EXPECT_TRUE(grace->waitUntil([&] { return again->greens > 10; }));
  EXPECT_EQ(again->others, 0);
  EXPECT_EQ(corner->others, rooms);
  ada->leaveAndWait();
  grace->leaveAndWait();
}

}  // namespace
}  // namespace kestrova::test
