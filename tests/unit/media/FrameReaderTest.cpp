#include <kestrova/media/SocketConnectionFrameReader.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/ScriptedScreen.h>
#include <tests/support/TraceRecorder.h>

#include <algorithm>
#include <cstring>
#include <numeric>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Bytes that arrive in the pieces that the test cuts.
class Pieces final : public InputStream {
public:
  std::ptrdiff_t read(std::uint8_t* buffer, std::size_t maxLength) override {
    asked.push_back(maxLength);
    const auto count = std::min({maxLength, piece, bytes.size()});
    std::memcpy(buffer, bytes.data(), count);
    bytes.erase(0, count);
    return static_cast<std::ptrdiff_t>(count);
  }
  std::string bytes;
  std::size_t piece = 64 * 1024;
  std::vector<std::size_t> asked;
};

/// A reader, and the pictures that came of it: size, rotation and the byte that fills them.
struct Reading {
  explicit Reading(const BridgeRules& rules = mainBridge)
      : reader(std::make_shared<SocketConnectionFrameReader>(screen.makeRenderer(), rules)) {
    reader->didCapture = [this](const std::shared_ptr<PixelBuffer>& buffer, int rotation) {
      const auto fill = buffer->mutablePixels()[0];
      pictures.push_back(std::to_string(buffer->width()) + "x" + std::to_string(buffer->height()) +
                         (rotation ? " turned " + std::to_string(rotation) : "") + " " +
                         (fill ? std::string(1, static_cast<char>(fill)) : "empty"));
    };
  }
  void take(std::string bytes, std::size_t piece = 64 * 1024) {
    stream.bytes += bytes;
    stream.piece = piece;
    while (!stream.bytes.empty()) reader->stream(stream, StreamEvent::hasBytesAvailable, "");
  }

  Journal journal;
  ScriptedScreen screen{journal};
  Pieces stream;
  std::vector<std::string> pictures;
  const std::shared_ptr<SocketConnectionFrameReader> reader;
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

std::string bodyOf(std::size_t length) {
  return "pictureA" + std::string(length - 8, '.');
}

TEST(FrameReaderTest, framesComeWholeHoweverTheyAreCut) {
  const auto stream = frameOf("pictureA") + frameOf(bodyOf(30'000), 8, 6) + frameOf("pictureC");
  for (const std::size_t piece : {1, 2, 3, 7, 100, 4096, 10'240, 65'536}) {
    Reading reading;
    reading.take(stream, piece);
    EXPECT_THAT(reading.pictures, ElementsAre("4x2 A", "8x6 A", "4x2 C")) << piece;
  }
}

TEST(FrameReaderTest, aReadAsksForWhatIsMissingAndForNoMoreThanTheLargest) {
  Reading reading;
  const auto header = frameOf(bodyOf(25'000)).substr(0, frameOf(bodyOf(25'000)).size() - 25'000);
  const auto start = header + std::string(10'240 - header.size(), 'x');
  reading.take(start);
  const auto missing = 25'000 - (10'240 - header.size());
  EXPECT_EQ(reading.reader->readLength(), 10'240);  // more are missing than are read at once
  reading.take(std::string(missing - 500, 'x'), 10'240);
  EXPECT_EQ(reading.reader->readLength(), 500);
  EXPECT_THAT(reading.pictures, IsEmpty());
  reading.take(std::string(500, 'x'));
  // Its body is none of a picture: the frame is whole all the same.
  EXPECT_THAT(reading.pictures, ElementsAre("4x2 empty"));
  EXPECT_EQ(*std::max_element(reading.stream.asked.begin(), reading.stream.asked.end()), 10'240u);
}

TEST(FrameReaderTest, theReadLengthAfterAFrameIsWhatTheBridgeSays) {
  Reading main;
  main.take(frameOf("pictureA"));
  EXPECT_EQ(main.reader->readLength(), 10'240);
  Reading older(olderBridge);
  older.take(frameOf("pictureA"));
  EXPECT_EQ(older.reader->readLength(), 0);
  older.take(frameOf("pictureB"));
  EXPECT_THAT(older.pictures, ElementsAre("4x2 A", "4x2 B"));
}

TEST(FrameReaderTest, orientationsBecomeRotations) {
  const int rotations[] = {0, 0, 0, 180, 0, 0, 270, 0, 90, 0};
  for (int orientation = 0; orientation < 10; ++orientation)
    EXPECT_EQ(SocketConnectionFrameReader::rotationOf(orientation), rotations[orientation]);
  Reading reading;
  reading.take(frameOf("pictureA", 4, 2, 6));
  EXPECT_THAT(reading.pictures, ElementsAre("4x2 turned 270 A"));
}

TEST(FrameReaderTest, aFrameThatMakesNoneIsDroppedAloneAndTheNextOneCounts) {
  const auto good = frameOf("pictureA");
  const std::string bad[] = {
      replaced(good, "Buffer-Width: 4", "Buffer-Width: 0"),
      replaced(good, "Buffer-Width: 4", "Buffer-Width: -4"),
      replaced(good, "Buffer-Width: 4", "Buffer-Width: 30000"),
      replaced(good, "Buffer-Height: 2", "Buffer-Height: 99999999999999999999"),
      replaced(good, "Buffer-Height: 2", "Buffer-Height: two"),
      replaced(good, "Buffer-Height: 2", "Height: 2"),
      replaced(good, "Buffer-Orientation: 1", "Buffer-Orientation: -1"),
      replaced(good, "Buffer-Orientation: 1", "Buffer-Orientation:"),
      replaced(good, "Content-Length: 8", "Content-Length: -8"),
      replaced(good, "Content-Length: 8", "Content-Length: 99999999999"),
      replaced(good, "Content-Length: 8", "Content-Length: 8 bytes"),
      replaced(good, "Content-Length: 8\r\n", ""),
      replaced(good, "HTTP/1.1 200 OK", "GET / SPDY"),
      "\r\n\r\n",
      std::string("\0\xff nonsense", 11),
      std::string(30'000, 'x'),
  };
  for (const auto& frame : bad)
    for (const std::size_t piece : {1, 10'240}) {
      Reading reading;
      reading.take(good + frame + frameOf("pictureB") + frameOf("pictureC"), piece);
      // What follows nonsense without an end may go with it, but never more than that.
      ASSERT_GE(reading.pictures.size(), 2u) << frame.substr(0, 200) << " in " << piece;
      EXPECT_EQ(reading.pictures.front(), "4x2 A");
      EXPECT_EQ(reading.pictures.back(), "4x2 C") << frame.substr(0, 200) << " in " << piece;
    }
}

TEST(FrameReaderTest, aLengthThatLiesCostsTheFramesThatItSwallowsAndNoMemory) {
  Reading reading;
  const auto lie = replaced(frameOf("pictureA"), "Content-Length: 8", "Content-Length: 60000000");
  reading.take(lie + frameOf("pictureB"));
  EXPECT_THAT(reading.pictures, IsEmpty());  // it waits for the rest
  Reading shorter;
  shorter.take(replaced(frameOf("pictureA!!"), "Content-Length: 10", "Content-Length: 8") +
               frameOf("pictureB"));
  EXPECT_THAT(shorter.pictures, ElementsAre("4x2 A", "4x2 B"));
}

TEST(FrameReaderTest, theOlderBridgeReadsWhatIsMissingAsNothing) {
  auto& traces = TraceRecorder::shared();
  traces.clear();
  const auto without = replaced(frameOf("pictureA"), "Buffer-Width: 4\r\n", "");
  Reading main;
  main.take(without + frameOf("pictureB"));
  EXPECT_THAT(main.pictures, ElementsAre("4x2 B"));
  EXPECT_FALSE(traces.has("CVPixelBufferCreate failed"));
  Reading older(olderBridge);
  older.take(without + frameOf("pictureB"));
  EXPECT_THAT(older.pictures, ElementsAre("4x2 B"));
  EXPECT_TRUE(traces.has("CVPixelBufferCreate failed"));
  // Without an orientation it is upright there, and no frame here.
  const auto flat = replaced(frameOf("pictureC"), "Buffer-Orientation: 1\r\n", "");
  main.take(flat);
  older.take(flat);
  EXPECT_EQ(main.pictures.size(), 1u);
  EXPECT_THAT(older.pictures, ElementsAre("4x2 B", "4x2 C"));
}

TEST(FrameReaderTest, appendBytesTellsWhatIsMissing) {
  Journal journal;
  ScriptedScreen screen(journal);
  FrameWorkshop workshop;
  workshop.renderer = screen.makeRenderer();
  FrameMessage message(workshop);
  std::vector<bool> told;
  message.didComplete = [&](bool success, FrameMessage&) { told.push_back(success); };
  const auto frame = frameOf("pictureA");
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(frame.data());
  const auto headerLength = frame.size() - 8;
  EXPECT_EQ(message.appendBytes(bytes, headerLength - 1), -1);
  EXPECT_EQ(message.appendBytes(bytes + headerLength - 1, 1), 8);
  EXPECT_EQ(message.appendBytes(bytes + headerLength, 5), 3);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_EQ(message.appendBytes(bytes + headerLength + 5, 3), 0);
  EXPECT_THAT(told, ElementsAre(true));
  ASSERT_TRUE(message.imageBuffer);
  EXPECT_EQ(message.imageBuffer->width(), 4);
}

}  // namespace
}  // namespace kestrova::test
