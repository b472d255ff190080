#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "NodeServer.h"
#include "ScriptedServer.h"
#include "TaskProbe.h"
#include <cstdlib>
#include <future>

namespace kestrova::test {
namespace {

using Lines = std::vector<std::string>;

TEST(WebSocketTask, isMadeForTheSchemesOfWebSocketsOnly) {
  const auto queue = SerialQueue::make("none");
  for (const char* url : {"", "ws", "ws:", "ws://", "http://host/", "https://host/", "wsx://host/",
                          "//host/", "ws://host:0/", "ws://host:99999/", "ws://ho st/", "ws://[1/"})
    EXPECT_FALSE(makeWebSocketTask(url, queue, {}, Runtime::network())) << url;
  for (const char* url : {"ws://host", "WSS://host:1/path?a=b", "ws://[::1]:8/"})
    EXPECT_TRUE(makeWebSocketTask(url, queue, {}, Runtime::network())) << url;
}

TEST(WebSocketTask, carriesBothKindsOfMessagesInTheirOrder) {
  NodeServer server;
  const auto probe = startReading(server.url());
  ASSERT_TRUE(probe->log.waitFor("open"));
  for (const char* message : {"!url", "", "one"}) probe->send(message);
  ASSERT_TRUE(probe->log.waitFor("data one"));
  EXPECT_EQ(probe->log.count("sent"), 3u);
  Lines received;
  for (const auto& line : probe->log.lines())
    if (line != "sent") received.push_back(line);
  EXPECT_EQ(received, (Lines{"open", "text /path?token=hush", "data ", "data one"}));
}

TEST(WebSocketTask, speaksTlsWithWhomItTrusts) {
  Authority authority;
  setenv("SSL_CERT_FILE", authority.file().c_str(), 1);
  NodeServer server(authority.certify("IP:127.0.0.1"));
  const auto probe = startReading("wss://127.0.0.1:" + std::to_string(server.port()));
  ASSERT_TRUE(probe->log.waitFor("open"));
  probe->send(std::string(1'000'000, 'x'));
  EXPECT_TRUE(probe->log.waitFor("data 1000000"));
  unsetenv("SSL_CERT_FILE");
}

TEST(WebSocketTask, carriesTheLongestMessageBothWaysAndNoLongerOne) {
  NodeServer server;
  const auto probe = startReading(server.url());
  ASSERT_TRUE(probe->log.waitFor("open"));
  const auto most = WebSocketTask::mostIncomingBytes;
  probe->send(std::string(most, 'x'));
  probe->send("behind");
  ASSERT_TRUE(probe->log.waitFor("data behind"));
  EXPECT_EQ(probe->log.count("data " + std::to_string(most)), 1u);

  const auto other = startReading(server.url());
  ASSERT_TRUE(other->log.waitFor("open"));
  other->send("!codes");
  other->send("there?");
  ASSERT_TRUE(other->log.waitFor("data there?"));
  probe->send("!blob " + std::to_string(most + 1));
  ASSERT_TRUE(probe->log.waitFor("complete receiving failed: "));
  EXPECT_EQ(probe->log.count("failed receiving failed: "), 1u);
  EXPECT_EQ(probe->log.count("close"), 0u);
  EXPECT_TRUE(other->log.waitFor("text 1009"));
}

TEST(WebSocketTask, endsWhenTooMuchWaitsToBeSent) {
  std::promise<void> over;
  ScriptedServer server({[&](ScriptedPeer& peer) {
    peer.accept();
    over.get_future().wait();  // reads nothing
  }});
  const auto probe = startTask(server.url());
  ASSERT_TRUE(probe->log.waitFor("open"));
  for (int i = 0; i < 3; ++i) probe->send(std::string(WebSocketTask::mostIncomingBytes, 'x'));
  EXPECT_TRUE(probe->log.waitFor("complete too much waits to be sent"));
  over.set_value();
  EXPECT_EQ(probe->log.lines(), (Lines{"open", "sent", "sent", "sent too much waits to be sent",
                                       "complete too much waits to be sent"}));
}

TEST(WebSocketTask, carriesAFloodInOrder) {
  constexpr int count = 100'000;
  NodeServer server;
  const auto probe = startTask(server.url());
  ASSERT_TRUE(probe->log.waitFor("open"));
  struct Reader {
    void next(WebSocketTask& task) {
      task.receive([this, &task](auto result) {
        const auto* message = std::get_if<WebSocketTask::Message>(&result);
        if (!message) return done.set_value(read);
        const std::string text(message->bytes.begin(), message->bytes.end());
        if (text != std::to_string(read) || ++read == count) return done.set_value(read);
        next(task);
      });
    }
    int read = 0;
    std::promise<int> done;
  } reader;
  probe->act([&](WebSocketTask& task) { reader.next(task); });
  probe->send("!flood " + std::to_string(count));
  EXPECT_EQ(reader.done.get_future().get(), count);
}

TEST(WebSocketTask, answersWhatItCannotDo) {
  std::promise<void> asked;
  ScriptedServer server({[&](ScriptedPeer& peer) {
    asked.get_future().wait();
    peer.accept();
    peer.text(peer.read());
    peer.linger();
  }});
  const auto probe = std::make_shared<TaskProbe>(server.url());
  probe->queue->sync([&] {  // nothing is told in between
    probe->start();
    probe->send("too early");
    probe->receive();
    probe->receive();
    EXPECT_TRUE(probe->log.lines().empty());
  });
  asked.set_value();
  ASSERT_TRUE(probe->log.waitFor("open"));
  probe->act([](WebSocketTask& task) {
    task.resume();
    task.send({'x'}, nullptr);
  });
  ASSERT_TRUE(probe->log.waitFor("text x"));
  EXPECT_EQ(probe->log.lines(),
            (Lines{"sent the connection is not open", "failed a message is waited for already",
                   "open", "text x"}));
}

// ---- A server that has to wait -----------------------------------------------------------------

/// A server sends until nothing more goes, to a task that nobody asks. Its script takes the network
/// thread's turns meanwhile, so it knows when that one has nothing left to do.
class StalledServer {
public:
  static constexpr std::size_t frameBytes = 16 * 1024;
  static constexpr std::size_t farTooMuch = 256 * 1024 * 1024;

  explicit StalledServer(std::function<void(ScriptedPeer&)> then)
      : _then(std::move(then)),
        _server({[this](ScriptedPeer& peer) { run(peer); }}),
        probe(std::make_shared<TaskProbe>(_server.url(), WebSocketOptions(), _io.get_executor())) {
    // The longest that it takes on loopback is far below.
    probe->told = [this](const std::string& line) {
      if (line == "open") _io.stop();
    };
    probe->start();
    _io.run();
    _io.restart();
    _open.set_value();
    stalled = _stalled.get_future().get();
    _thread = std::thread([this] { _io.run(); });
  }
  ~StalledServer() {
    const auto queue = probe->queue;
    probe.reset();
    queue->sync([] {});  // its work holds the socket, which must not outlive its context
    _done.get_future().wait();
    _guard.reset();
    _thread.join();
  }

  std::size_t stalled = 0;  ///< what it could send
  std::size_t frames = 0;   ///< and in how many messages, once it could

private:
  void run(ScriptedPeer& peer) {
    try {
      peer.accept();
      _open.get_future().wait();
      fill(peer);
      _then(peer);
    } catch (const std::exception&) {
      // The client went.
    }
    _done.set_value();
  }
  void fill(ScriptedPeer& peer) {
    std::string frame("\x82\x7e\x40\x00", 4);  // binary, with a length in 16 bits
    frame.resize(4 + frameBytes, 'x');
    std::size_t sent = 0;
    for (bool grows = true; grows && sent < farTooMuch;) {
      grows = false;
      for (;;) {
        const auto at = sent % frame.size();
        const auto size = ::send(peer.socket().native_handle(), frame.data() + at,
                                 frame.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (size <= 0) break;
        sent += static_cast<std::size_t>(size);
        grows = true;
      }
      while (_io.poll() > 0) {
      }
    }
    const auto rest = sent % frame.size();
    frames = sent / frame.size() + (rest ? 1 : 0);
    _stalled.set_value(sent);
    if (rest) boost::asio::write(peer.socket(), boost::asio::buffer(frame.substr(rest)));
  }

  boost::asio::io_context _io;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _guard{
      _io.get_executor()};
  std::promise<void> _open;
  std::promise<std::size_t> _stalled;
  std::promise<void> _done;
  const std::function<void(ScriptedPeer&)> _then;
  ScriptedServer _server;
  std::thread _thread;

public:
  std::shared_ptr<TaskProbe> probe;
};

TEST(WebSocketTaskBackpressure, theServerWaitsAndNothingIsLost) {
  StalledServer server([](ScriptedPeer& peer) {
    peer.text("last");
    peer.close(1000);
  });
  EXPECT_LT(server.stalled, StalledServer::farTooMuch);
  EXPECT_GT(server.stalled, 256u * 1024u);
  server.probe->receiveAll();
  ASSERT_TRUE(server.probe->log.waitFor("complete"));
  EXPECT_EQ(server.probe->log.count("data 16384"), server.frames);
  auto lines = server.probe->log.lines();
  lines.erase(lines.begin(), lines.end() - 4);
  EXPECT_EQ(lines, (Lines{"text last", "failed the server closed the connection (code 1000)",
                          "close 1000", "complete"}));
}

TEST(WebSocketTaskBackpressure, aTaskThatReadsNothingStillClosesProperly) {
  std::promise<std::uint16_t> code;
  StalledServer server([&](ScriptedPeer& peer) { code.set_value(peer.closeCode()); });
  server.probe->send("last");
  server.probe->cancel(4002);
  EXPECT_EQ(code.get_future().get(), 4002);
  EXPECT_EQ(server.probe->log.count("data"), 0u);
}

TEST(WebSocketTaskBackpressure, aLossIsToldAfterWhatCameBefore) {
  std::promise<void> asked;
  StalledServer server([&](ScriptedPeer& peer) {
    asked.get_future().wait();
    peer.socket().set_option(boost::asio::socket_base::linger(true, 0));
    peer.socket().close();
  });
  server.probe->receive();
  asked.set_value();
  ASSERT_TRUE(server.probe->log.waitFor("data"));
  server.probe->receiveAll();
  ASSERT_TRUE(server.probe->log.waitFor("complete "));
  EXPECT_GE(server.probe->log.count("data"), 256u / 16u);
  EXPECT_EQ(server.probe->log.count("failed"), 1u);
  EXPECT_EQ(server.probe->log.count("close"), 0u);
}

}  // namespace
}  // namespace kestrova::test
