#include <boost/asio/write.hpp>
#include <gtest/gtest.h>

#include "NodeServer.h"
#include "ScriptedServer.h"
#include "TaskProbe.h"
#include <cstdlib>

namespace kestrova::test {
namespace {

using Lines = std::vector<std::string>;

void answerRaw(ScriptedPeer& peer, const std::string& answer) {
  char buffer[4096];
  peer.socket().read_some(boost::asio::buffer(buffer));
  boost::asio::write(peer.socket(), boost::asio::buffer(answer));
}

/// Waits until the task has ended and gives what it told.
Lines linesOf(const std::shared_ptr<TaskProbe>& probe) {
  EXPECT_TRUE(probe->log.waitFor("complete"));
  return probe->log.lines();
}

TEST(WebSocketTaskEnd, givesTheServersCloseCodeAfterItsMessages) {
  NodeServer server;
  for (const char* code : {"1000", "4001", ""}) {
    SCOPED_TRACE(code);
    const auto probe = startTask(server.url());
    ASSERT_TRUE(probe->log.waitFor("open"));
    probe->send(std::string("!close ") + code);
    ASSERT_TRUE(probe->log.waitFor("sent"));  // before it hears anything
    probe->receiveAll();
    const std::string told = *code ? code : "1005";
    EXPECT_EQ(linesOf(probe), (Lines{"open", "sent", "text bye",
                                     "failed the server closed the connection (code " + told + ")",
                                     "close " + told, "complete"}));
    // All that follows fails, and not from within.
    probe->receive();
    probe->receive();
    probe->send("late");
    probe->settle();
    ASSERT_TRUE(probe->log.waitFor("failed", 3));
    EXPECT_EQ(probe->log.count("sent the connection is not open"), 1u);
    EXPECT_EQ(probe->log.count("ASTRAY"), 0u);
  }
}

TEST(WebSocketTaskEnd, waitsUntilWhatCameBeforeHasBeenAskedFor) {
  ScriptedServer server({[](ScriptedPeer& peer) {
    peer.accept();
    for (const char* text : {"1", "2", "3"}) peer.text(text);
    peer.close(1001);
  }});
  const auto probe = startTask(server.url());
  for (std::size_t i = 1; i <= 3; ++i) {
    probe->receive();
    ASSERT_TRUE(probe->log.waitFor("text", i));
  }
  ASSERT_TRUE(probe->log.waitFor("complete"));  // nobody waits, so nobody fails
  EXPECT_EQ(probe->log.lines(),
            (Lines{"open", "text 1", "text 2", "text 3", "close 1001", "complete"}));
}

TEST(WebSocketTaskEnd, toldToTheReceiverFirstEvenIfItAsksAgain) {
  ScriptedServer server({[](ScriptedPeer& peer) {
    peer.accept();
    peer.close(1000);
  }});
  const auto probe = std::make_shared<TaskProbe>(server.url());
  int again = 3;
  probe->told = [&](const std::string& line) {
    if (line.starts_with("failed") && again-- > 0) probe->receive();
  };
  probe->queue->sync([&] {
    probe->start();
    probe->receive();
  });
  ASSERT_TRUE(probe->log.waitFor("failed", 4));
  const std::string failed = "failed the server closed the connection (code 1000)";
  EXPECT_EQ(probe->log.lines(),
            (Lines{"open", failed, "close 1000", "complete", failed, failed, failed}));
}

TEST(WebSocketTaskEnd, comesThoughAHandlerThrows) {
  NodeServer server;
  const auto probe = std::make_shared<TaskProbe>(server.url());
  probe->told = [](const std::string& line) { throw std::runtime_error("thrown at " + line); };
  probe->start();
  probe->receive();
  ASSERT_TRUE(probe->log.waitFor("open"));
  probe->send("!close 1000");
  ASSERT_TRUE(probe->log.waitFor("text bye"));
  ASSERT_TRUE(probe->log.waitFor("complete"));
  EXPECT_EQ(probe->log.lines(), (Lines{"open", "sent", "text bye", "close 1000", "complete"}));
}

TEST(WebSocketTaskEnd, isALossWithoutACloseFrame) {
  NodeServer reset;
  ScriptedServer hungUp({[](ScriptedPeer& peer) {
    peer.accept();
    peer.text("last");
    peer.read();
  }});
  for (const auto& url : {reset.url(), hungUp.url()}) {
    const auto probe = startReading(url);
    ASSERT_TRUE(probe->log.waitFor("open"));
    probe->send("!reset");
    const auto lines = linesOf(probe);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(*(lines.end() - 2), "failed receiving failed: the server closed the connection");
    EXPECT_EQ(lines.back(), "complete receiving failed: the server closed the connection");
    EXPECT_EQ(probe->log.count("close "), 0u);
    EXPECT_EQ(probe->log.count("text last"), url == hungUp.url() ? 1u : 0u);
  }
}

TEST(WebSocketTaskEnd, ofAConnectionThatCannotBeMadeNamesItsCause) {
  Authority authority;
  setenv("SSL_CERT_FILE", authority.file().c_str(), 1);
  NodeServer other(authority.certify("DNS:other.example"));
  NodeServer expired(authority.certify("IP:127.0.0.1", -1));
  ScriptedServer refusing({[](ScriptedPeer& peer) {
    answerRaw(peer, "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n");
  }});
  ScriptedServer babbling({[](ScriptedPeer& peer) { answerRaw(peer, "220 ready\r\n\r\n"); }});
  ScriptedServer silent({[](ScriptedPeer& peer) {
    char buffer[4096];
    while (peer.socket().read_some(boost::asio::buffer(buffer)) > 0) {
    }
  }});
  std::string closedPort;
  {
    NodeServer gone;
    closedPort = gone.url();
  }
  auto secure = [](const NodeServer& server) {
    return "wss://127.0.0.1:" + std::to_string(server.port());
  };
  const std::pair<std::string, std::string> cases[] = {
      {secure(other), "certificate is made out to another host name"},
      {secure(expired), "certificate has expired"},
      {"wss" + refusing.url().substr(4), "TLS handshake failed"},
      {refusing.url(), "the server answered with HTTP status 403"},
      {babbling.url(), "WebSocket handshake failed"},
      {silent.url(), "connecting took too long"},
      {closedPort, "connection failed: connection refused"},
      {"ws://no-such-host.invalid", "the host's name"},
  };
  for (const auto& [url, cause] : cases) {
    SCOPED_TRACE(cause);
    WebSocketOptions options;
    if (url == silent.url()) options.limits.connectTimeout = std::chrono::milliseconds(100);
    const auto lines = linesOf(startReading(url, options));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("failed ")) << lines[0];
    EXPECT_NE(lines[0].find(cause), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1], "complete" + lines[0].substr(6));
  }
  unsetenv("SSL_CERT_FILE");
}

TEST(WebSocketTaskEnd, comesWithWhatIsNoWebSocket) {
  const std::pair<const char*, std::string> cases[] = {
      {"reserved bits", "\xf2\x01x"},
      {"unknown kind", "\x83\x01x"},
      {"masked", std::string("\x82\x81\0\0\0\0x", 7)},
      {"continues nothing", std::string("\x80\x01x")},
      {"text that is not UTF-8", "\x81\x02\xc3\x28"},
      {"long ping", std::string("\x89\x7e\x00\xff", 4) + std::string(255, 'x')},
      {"a length beyond all bounds", "\x82\x7f\xff\xff\xff\xff\xff\xff\xff\xff"},
      {"a code that may not be sent", "\x88\x02\x03\xed"},
      {"half a code", "\x88\x01\x03"},
      {"not a frame at all", "HTTP/1.1 200 OK\r\n\r\n"},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    ScriptedServer server({[&](ScriptedPeer& peer) {
      peer.accept();
      peer.text("fine");
      boost::asio::write(peer.socket(), boost::asio::buffer(bytes));
      char buffer[4096];
      while (peer.socket().read_some(boost::asio::buffer(buffer)) > 0) {
      }
    }});
    WebSocketOptions options;
    options.limits.closeTimeout = std::chrono::milliseconds(50);
    const auto lines = linesOf(startReading(server.url(), options));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], "text fine");
    EXPECT_TRUE(lines[3].starts_with("complete receiving failed: ")) << lines[3];
  }
}

}  // namespace
}  // namespace kestrova::test
