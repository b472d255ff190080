#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/linux/websocket/WebSocket.h>

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include "Log.h"
#include "ScriptedServer.h"
#include <future>

namespace kestrova::test {
namespace {

/// Writes down what its socket tells.
struct Channel : WebSocketListener, std::enable_shared_from_this<Channel> {
  void open(const std::string& url, WebSocketOptions options = {}) {
    options.scheduler = Runtime::scheduler();
    socket = std::make_shared<WebSocket>(strand, *WebSocketEndpoint::make(url), options,
                                         weak_from_this());
    onStrand([](WebSocket& opened) { opened.open(); });
  }
  template <class F>
  void onStrand(F step) {
    boost::asio::post(strand, [kept = socket, step] { step(*kept); });
  }
  void webSocketOpened() override { log.add("opened"); }
  void webSocketText(std::string_view message) override { log.add("text " + std::string(message)); }
  void webSocketBytes(std::span<const std::uint8_t> message) override {
    log.add("bytes " + std::string(message.begin(), message.end()));
  }
  void webSocketClosed(const std::string& reason, std::optional<std::uint16_t> code) override {
    log.add("closed " + (code ? std::to_string(*code) : reason));
  }

  WebSocketStrand strand{Runtime::network()};
  std::shared_ptr<WebSocket> socket;
  Log log;
};

TEST(WebSocket, carriesBothKindsOfMessagesAndTheCloseCode) {
  std::promise<std::string> asked;
  ScriptedServer server({[&](ScriptedPeer& peer) {
    peer.accept();
    asked.set_value(std::string(peer.request().target()) + " " +
                    std::string(peer.request()["X-Kind"]));
    for (int i = 0; i < 2; ++i) peer.bytes(peer.read());
    peer.text("bye");
    peer.close(4001);
  }});
  const auto channel = std::make_shared<Channel>();
  WebSocketOptions options;
  options.headers = {{"X-Kind", "test"}};
  channel->open(server.url() + "/a/b?c=d", options);
  EXPECT_EQ(asked.get_future().get(), "/a/b?c=d test");
  ASSERT_TRUE(channel->log.waitFor("opened"));
  EXPECT_EQ(channel->socket->send(WebSocket::Bytes{'x', 'y'}), WebSocket::SendResult::queued);
  EXPECT_EQ(channel->socket->send(std::string("z")), WebSocket::SendResult::queued);
  ASSERT_TRUE(channel->log.waitFor("closed"));
  EXPECT_EQ(channel->log.lines(),
            (std::vector<std::string>{"opened", "bytes xy", "bytes z", "text bye", "closed 4001"}));
  EXPECT_EQ(channel->socket->send(std::string("late")), WebSocket::SendResult::closed);
}

TEST(WebSocket, closesWithTheCodeAskedForAfterWhatWasSent) {
  std::promise<std::string> heard;
  ScriptedServer server({[&](ScriptedPeer& peer) {
    peer.accept();
    auto last = peer.read();
    heard.set_value(last + " " + std::to_string(peer.closeCode()));
  }});
  const auto channel = std::make_shared<Channel>();
  channel->open(server.url());
  ASSERT_TRUE(channel->log.waitFor("opened"));
  channel->socket->send(WebSocket::Bytes{'l', 'a', 's', 't'});
  channel->onStrand([](WebSocket& socket) { socket.close(WebSocket::goingAway); });
  EXPECT_EQ(heard.get_future().get(), "last 1001");
  EXPECT_EQ(channel->log.lines().size(), 1u);
}

}  // namespace
}  // namespace kestrova::test
