#include <kestrova/media/BroadcastSocketConnection.h>
#include <kestrova/media/SocketConnectionFrameReader.h>
#include <kestrova/platform/linux/screen/LinuxRenderer.h>
#include <kestrova/platform/linux/screen/LinuxScreenSharing.h>
#include <kestrova/platform/linux/screen/LinuxUnixSockets.h>
#include <kestrova/platform/linux/screen/PrivateFolder.h>

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Jpegs.h"
#include "PrivateRuntime.h"
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace kestrova::test {
namespace {

/// A sender, as another process would be one.
class Sender {
public:
  explicit Sender(const std::string& path)
      : _socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    isConnected =
        ::connect(_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~Sender() { hangUp(); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  bool send(std::string_view bytes, std::size_t piece = 1 << 20) {
    while (!bytes.empty()) {
      const auto sent = ::send(_socket, bytes.data(), std::min(piece, bytes.size()), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }
  /// Waits until the other side closes the connection.
  bool isTurnedAway() {
    char byte = 0;
    return ::recv(_socket, &byte, 1, 0) <= 0;
  }
  void hangUp() {
    if (_socket >= 0) ::close(_socket);
    _socket = -1;
  }
  bool isConnected = false;

private:
  int _socket;
};

/// Both ends of the bridge on real sockets.
class BridgeTest : public testing::Test {
protected:
  BridgeTest() {
    reader->didCapture = [this](const std::shared_ptr<PixelBuffer>& buffer, int) {
      std::scoped_lock held(lock);
      ++pictures;
      last = buffer;
      changed.notify_all();
    };
    reader->didEnd = [this] {
      std::scoped_lock held(lock);
      hasEnded = true;
      changed.notify_all();
    };
    reader->connection(connection);
  }
  ~BridgeTest() override { connection->close(); }

  bool waitFor(const std::function<bool()>& condition) {
    std::unique_lock held(lock);
    return changed.wait_for(held, std::chrono::seconds(patienceSeconds), condition);
  }
  static std::string frame(const std::string& body, int width, int height) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nBuffer-Width: " + std::to_string(width) +
           "\r\nBuffer-Height: " + std::to_string(height) + "\r\nBuffer-Orientation: 1\r\n\r\n" +
           body;
  }

  PrivateRuntime runtime;
  const std::string path = *groupFolder("test") + "/rtc_SSFD";
  const std::shared_ptr<SocketConnectionFrameReader> reader =
      std::make_shared<SocketConnectionFrameReader>(makePictureRenderer());
  const std::shared_ptr<BroadcastSocketConnection> connection =
      BroadcastSocketConnection::make(path, reader, makeUnixSockets());
  std::mutex lock;
  std::condition_variable changed;
  int pictures = 0;
  bool hasEnded = false;
  std::shared_ptr<PixelBuffer> last;
};

TEST_F(BridgeTest, picturesCrossInWhateverPieces) {
  ASSERT_TRUE(connection->open());
  Sender sender(path);
  ASSERT_TRUE(sender.isConnected);
  const auto jpeg = jpegOf(320, 200, 220, 30, 60);
  const auto one = frame(jpeg, 320, 200);
  ASSERT_TRUE(sender.send(one, 1));
  ASSERT_TRUE(sender.send(one + one + one, 65'536));
  ASSERT_TRUE(sender.send(frame(jpegOf(1920, 1080, 1, 2, 3), 1920, 1080), 10'000));
  ASSERT_TRUE(waitFor([&] { return pictures == 5; })) << pictures;
  EXPECT_EQ(last->width(), 1920);
  sender.hangUp();
  ASSERT_TRUE(waitFor([&] { return hasEnded; }));
  EXPECT_FALSE(connection->isOpen());
  EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

TEST_F(BridgeTest, aSecondSenderIsTurnedAwayAndTheFirstGoesOn) {
  ASSERT_TRUE(connection->open());
  Sender first(path);
  const auto one = frame(jpegOf(64, 48, 9, 9, 9), 64, 48);
  ASSERT_TRUE(first.send(one));
  ASSERT_TRUE(waitFor([&] { return pictures == 1; }));
  Sender second(path);
  EXPECT_TRUE(second.isTurnedAway());
  ASSERT_TRUE(first.send(one));
  EXPECT_TRUE(waitFor([&] { return pictures == 2; }));
}

TEST_F(BridgeTest, aSenderThatStopsInTheMiddleHoldsNothingUp) {
  ASSERT_TRUE(connection->open());
  Sender sender(path);
  const auto one = frame(jpegOf(64, 48, 9, 9, 9), 64, 48);
  ASSERT_TRUE(sender.send(one + one.substr(0, one.size() / 2)));
  ASSERT_TRUE(waitFor([&] { return pictures == 1; }));
  connection->close();  // returns, and nothing of it is left
  EXPECT_TRUE(sender.isTurnedAway());
  EXPECT_FALSE(Sender(path).isConnected);
}

TEST_F(BridgeTest, aCloseFromWithinIsWhole) {
  reader->didCapture = [this](const auto&, int) {
    connection->close();
    std::scoped_lock held(lock);
    ++pictures;
    changed.notify_all();
  };
  ASSERT_TRUE(connection->open());
  Sender sender(path);
  const auto one = frame(jpegOf(64, 48, 9, 9, 9), 64, 48);
  sender.send(one + one);
  EXPECT_TRUE(waitFor([&] { return pictures > 0; }));
  EXPECT_TRUE(sender.isTurnedAway());
}

TEST_F(BridgeTest, aPathOfMoreThanAnAddressCanHoldIsRefused) {
  const auto opens = [&](std::size_t length) {
    auto longPath = runtime.path + "/";
    longPath += std::string(length - longPath.size(), 'p');
    const auto other = BroadcastSocketConnection::make(longPath, reader, makeUnixSockets());
    const bool isOpen = other->open();
    other->close();
    return isOpen;
  };
  EXPECT_TRUE(opens(103));
  EXPECT_FALSE(opens(104));
  EXPECT_FALSE(opens(105));
  EXPECT_FALSE(opens(400));
  for (const auto& entry : std::filesystem::directory_iterator(runtime.path))
    EXPECT_EQ(entry.path().filename(), "kestrova");  // nothing else was left
}

TEST_F(BridgeTest, anotherUserIsTurnedAway) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ASSERT_TRUE(connection->open());
  // The folder keeps others out; here it is the socket's own turn.
  ::chmod(runtime.path.c_str(), 0755);
  ::chmod((runtime.path + "/kestrova").c_str(), 0755);
  ::chmod((runtime.path + "/kestrova/test").c_str(), 0755);
  ::chmod(path.c_str(), 0777);
  const auto one = frame(jpegOf(64, 48, 9, 9, 9), 64, 48);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setuid(65534) != 0) ::_exit(3);
    Sender stranger(path);
    stranger.send(one);
    ::_exit(stranger.isConnected && stranger.isTurnedAway() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  Sender own(path);
  ASSERT_TRUE(own.send(one));
  EXPECT_TRUE(waitFor([&] { return pictures == 1; }));
}

TEST(PrivateFolderTest, aFolderThatOthersCanReachIsNotUsed) {
  PrivateRuntime runtime;
  EXPECT_EQ(groupFolder("a.b-c_1"), runtime.path + "/kestrova/a.b-c_1");
  for (const char* name : {"", ".", "..", ".hidden", "a/b", "../a", "ä", "a b"})
    EXPECT_FALSE(groupFolder(name)) << name;
  struct stat made {};
  ASSERT_EQ(::stat((runtime.path + "/kestrova/a.b-c_1").c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 0777, 0700u);
  ::chmod((runtime.path + "/kestrova/a.b-c_1").c_str(), 0750);
  EXPECT_FALSE(groupFolder("a.b-c_1"));
  ::symlink("/tmp", (runtime.path + "/kestrova/link").c_str());
  EXPECT_FALSE(groupFolder("link"));
  ::chmod(runtime.path.c_str(), 0755);
  const auto elsewhere = privateFolder();
  ASSERT_TRUE(elsewhere);
  EXPECT_FALSE(elsewhere->starts_with(runtime.path));
}

TEST(PrivateFolderTest, aDeclaredNameLeavesRoomForWhatAShareAdds) {
  PrivateRuntime runtime;
  boost::asio::io_context loop;
  const auto screen = makeScreenSharing(loop.get_executor());
  const std::string longest(longestDeclaredGroup, 'g');
  screen->configure({.appGroupIdentifier = longest});
  EXPECT_TRUE(screen->container(screen->ownGroup(longest)));
  for (const std::string& name : {longest + "g", std::string("a/b"), std::string(".hidden")})
    EXPECT_THROW(screen->configure({.appGroupIdentifier = name}), std::invalid_argument) << name;
  EXPECT_EQ(screen->infoValue(appGroupIdentifierKey), longest);
}

}  // namespace
}  // namespace kestrova::test
