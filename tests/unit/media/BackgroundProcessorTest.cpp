#include <kestrova/media/KestrovaBackgroundProcessor.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tests/support/ScriptedImaging.h>
#include <tests/support/TestPlatform.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

namespace kestrova::test {
namespace {

class BackgroundProcessorTest : public testing::Test {
protected:
  static VideoFrame frameOf(int width, int height) {
    return {
        .buffer = std::make_shared<I420Buffer>(width, height), .timestampUs = 1234, .rotation = 90};
  }
  std::unique_ptr<KestrovaBackgroundProcessor> processorWith(const std::string& picture) {
    platform.session->answer(picture);
    auto made = std::make_unique<KestrovaBackgroundProcessor>("https://pictures.test/room");
    platform.pump();
    return made;
  }
  TestPlatform platform;
  const std::shared_ptr<ScriptedImaging> imaging = std::make_shared<ScriptedImaging>();
  const std::shared_ptr<ScriptedCompositing> script = ScriptedCompositing::install(imaging);
  const VideoFrame frame = frameOf(8, 4);
};

TEST_F(BackgroundProcessorTest, picturesPassUnchangedUntilTheBackgroundIsThere) {
  platform.session->answer("3x7");
  platform.session->withhold();
  std::vector<bool> told;
  KestrovaBackgroundProcessor processor("https://pictures.test/room",
                                        [&](bool isThere) { told.push_back(isThere); });
  platform.pump();
  EXPECT_FALSE(processor.onFrameReceived(frame));
  EXPECT_EQ(script->made, 0) << "nobody is looked for in vain";
  platform.session->release();
  platform.pump();
  EXPECT_THAT(told, testing::ElementsAre(true));

  const auto changed = processor.onFrameReceived(frame);
  ASSERT_TRUE(changed);
  EXPECT_NE(changed->buffer, frame.buffer);
  EXPECT_EQ(changed->timestampUs, 1234);
  EXPECT_EQ(changed->rotation, 90);
  ASSERT_EQ(script->blends.size(), 1u);
  EXPECT_EQ(script->blends[0].input, frame.buffer.get());
  EXPECT_EQ(script->blends[0].background->height, 7);
}

TEST_F(BackgroundProcessorTest, aBackgroundStaysUntilTheNextIsThereAndTheLastChangeCounts) {
  const auto processor = processorWith("1x1");
  const auto shown = [&] {
    processor->onFrameReceived(frame);
    const auto& background = script->blends.back().background;
    return background ? background->width : 0;
  };
  EXPECT_EQ(shown(), 1);

  std::vector<bool> told;
  platform.session->fail("no route");
  processor->changeBackground("https://me:pw@pictures.test/a?key=secret",
                              [&](bool isThere) { told.push_back(isThere); });
  platform.pump();
  EXPECT_THAT(told, testing::ElementsAre(false));
  EXPECT_TRUE(platform.traces.has("Error downloading image from URL: https://pictures.test/a"));
  EXPECT_EQ(shown(), 1);

  platform.session->answer("2x2");
  platform.session->withhold();
  processor->changeBackground("https://pictures.test/slow");
  platform.pump();
  processor->changeBackground(KestrovaBackgroundProcessor::Blur());
  EXPECT_EQ(shown(), 0);
  platform.session->release();
  platform.pump();
  EXPECT_EQ(shown(), 0) << "what was asked for earlier comes too late";
}

TEST_F(BackgroundProcessorTest, aDownloadOutlivesItsProcessor) {
  platform.session->answer("1x1");
  platform.session->withhold();
  { KestrovaBackgroundProcessor processor("https://pictures.test/room"); }
  platform.session->release();
  platform.pump();
}

TEST_F(BackgroundProcessorTest, buffersComeBackAndANewSizeMakesNewOnesOnce) {
  const auto processor = processorWith("1x1");
  const auto memoryOf = [&](const VideoFrame& camera) {
    std::set<const I420Buffer*> used;
    std::optional<VideoFrame> held;  // as an encoder does
    for (int i = 0; i < 20; ++i) {
      auto next = processor->onFrameReceived(camera);
      EXPECT_EQ(next->buffer->i420().width, camera.buffer->i420().width);
      used.insert(script->blends.back().into);
      held = std::move(next);
    }
    return used.size();
  };
  EXPECT_EQ(memoryOf(frameOf(8, 4)), 2u);
  EXPECT_EQ(memoryOf(frameOf(16, 10)), 2u);

  std::vector<VideoFrame> kept;
  for (int i = 0; i < 40; ++i) kept.push_back(*processor->onFrameReceived(frame));
  std::set<const VideoFrameBuffer*> different;
  for (const auto& each : kept) different.insert(each.buffer.get());
  EXPECT_EQ(different.size(), kept.size()) << "what somebody holds is not painted over";
}

TEST_F(BackgroundProcessorTest, whatFailsLeavesThePictureAlone) {
  const auto processor = processorWith("1x1");
  const VideoFrame empty{.buffer = nullptr, .timestampUs = 1};
  EXPECT_FALSE(processor->onFrameReceived(empty));
  EXPECT_FALSE(processor->onFrameReceived(frameOf(0, 0)));
  script->failure = "out of memory";
  EXPECT_FALSE(processor->onFrameReceived(frame));
  EXPECT_TRUE(platform.traces.has("Error performing person segmentation request: out of memory"));
  script->failure.clear();
  script->hasMask = false;
  EXPECT_FALSE(processor->onFrameReceived(frame));
  script->hasMask = true;
  script->canRender = false;
  EXPECT_FALSE(processor->onFrameReceived(frame));
  script->canRender = true;
  EXPECT_TRUE(processor->onFrameReceived(frame)) << "and the next may work again";
}

TEST_F(BackgroundProcessorTest, withoutASegmentationTheLogSaysSoOnce) {
  constexpr const char* line = "Person segmentation is not available: backgrounds stay as they are";
  script->cannotBeMade = "there is no model";
  const auto processor = processorWith("1x1");
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(processor->onFrameReceived(frame));
  EXPECT_EQ(platform.traces.count(line), 1);
  EXPECT_EQ(platform.traces.attribute(line, "error"), "there is no model");
  EXPECT_EQ(script->made, 1) << "it is not tried with every picture";
  platform.session->answer("1x1");
  std::vector<bool> told;
  const auto tell = [&](bool isThere) { told.push_back(isThere); };
  const KestrovaBackgroundProcessor blurred(KestrovaBackgroundProcessor::Blur(), tell);
  const KestrovaBackgroundProcessor replaced("https://pictures.test/room", tell);
  platform.pump();
  EXPECT_THAT(told, testing::ElementsAre(false, false)) << "who waits for it must not be seen";

  auto bare = *Platform::current();
  bare.makeImageRequestHandler = nullptr;
  Platform::install(std::move(bare));
  KestrovaBackgroundProcessor other{KestrovaBackgroundProcessor::Blur()};
  EXPECT_FALSE(other.onFrameReceived(frame));
  EXPECT_EQ(platform.traces.count(line), 4) << "each says so once";
}

// ---- Files -------------------------------------------------------------------------------------

class BackgroundFileTest : public BackgroundProcessorTest {
protected:
  BackgroundFileTest() { std::filesystem::create_directory(folder); }
  ~BackgroundFileTest() override { std::filesystem::remove_all(folder); }
  bool takes(const std::string& url) {
    std::optional<bool> taken;
    const KestrovaBackgroundProcessor processor(url, [&](bool isThere) { taken = isThere; });
    platform.pump();
    EXPECT_TRUE(taken) << url;
    return taken.value_or(false);
  }
  void write(const std::string& name, const std::string& content) const {
    std::ofstream(folder / name, std::ios::binary) << content;
  }
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("kestrova-background-" + std::to_string(getpid()));
};

TEST_F(BackgroundFileTest, filesOfThisMachineAreTakenWherePictures) {
  const auto url = "file://" + folder.string() + "/";
  write("a room.png", "5x5");
  EXPECT_TRUE(takes(url + "a%20room.png"));
  EXPECT_TRUE(takes("FILE://localhost" + folder.string() + "/a%20room.png"));
  EXPECT_EQ(platform.session->requests.size(), 0u);
  EXPECT_FALSE(takes("file://elsewhere.test" + folder.string() + "/a%20room.png"));
  EXPECT_FALSE(takes(url + "nothing.png"));
  EXPECT_FALSE(takes(url + "a room.png")) << "no URL";
  EXPECT_FALSE(takes(url));
  EXPECT_FALSE(takes("file:///dev/zero"));
  EXPECT_FALSE(takes(url + "a%20room.png%00"));
  write("text", "not a picture");
  EXPECT_FALSE(takes(url + "text"));
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_FALSE(takes(url + "pipe")) << "nobody writes to it";
  write("huge", "5x5");
  std::filesystem::resize_file(folder / "huge", 17 * 1024 * 1024);
  EXPECT_FALSE(takes(url + "huge"));
}

}  // namespace
}  // namespace kestrova::test
