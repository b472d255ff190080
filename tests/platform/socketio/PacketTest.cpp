#include <kestrova/platform/linux/socketio/EngineIO.h>
#include <kestrova/platform/linux/socketio/SocketIOPacket.h>
#include <kestrova/platform/linux/socketio/SocketLink.h>
#include <kestrova/platform/linux/websocket/WebSocketEndpoint.h>

#include <gtest/gtest.h>

#include "Probe.h"
#include <cmath>
#include <limits>

namespace kestrova::test {
namespace {

TEST(SocketIOPacket, whatIsNoJsonIsNotWritten) {
  EXPECT_FALSE(encodeEvent("a", {Value(std::nan(""))}, 1));
  EXPECT_FALSE(encodeEvent("\xff", {}, 1));
  EXPECT_FALSE(encodeAck(1, {Value("\xc3(")}));
  EXPECT_FALSE(
      encodeAck(1, {Value({{"deep", {{"inf", std::numeric_limits<double>::infinity()}}}})}));
}

TEST(SocketIOPacket, attachmentsGoWhereTheirPlaceholdersStand) {
  std::vector<std::string> skipped;
  SocketIODecoder decoder(100, [&](const char* why, std::optional<std::uint64_t> ack) {
    skipped.push_back(why + (ack ? " " + std::to_string(*ack) : std::string()));
  });
  SocketIOPacket packet;
  // The second placeholder is inside an argument and stays; its bytes are taken all the same.
  const std::string text =
      R"(53-9["f",{"_placeholder":true,"num":2},{"in":{"_placeholder":true,"num":1}},{"_placeholder":true,"num":0}])";
  ASSERT_FALSE(decoder.text(text, packet));
  const std::uint8_t parts[] = {'a', 'b', 'c'};
  EXPECT_FALSE(decoder.bytes({&parts[0], 1}, packet));
  EXPECT_FALSE(decoder.bytes({&parts[1], 1}, packet));
  ASSERT_TRUE(decoder.bytes({&parts[2], 1}, packet));
  EXPECT_EQ(packet.event, "f");
  EXPECT_EQ(packet.id, 9u);
  EXPECT_EQ(show(packet.items), R"(<1:c> {"in":{"_placeholder":true,"num":1}} <1:a>)");

  // A packet of another namespace goes by with its attachments.
  EXPECT_FALSE(decoder.text(R"(51-/other,["f",{"_placeholder":true,"num":0}])", packet));
  EXPECT_FALSE(decoder.bytes(parts, packet));
  // In a packet without attachments a placeholder is plain data.
  ASSERT_TRUE(decoder.text(R"(2["f",{"_placeholder":true,"num":0}])", packet));
  EXPECT_EQ(show(packet.items), R"({"_placeholder":true,"num":0})");
  EXPECT_EQ(skipped, std::vector<std::string>());

  // One that is too long is told of once, and what belongs to it goes by.
  ASSERT_FALSE(decoder.text(R"(63-3[{"_placeholder":true,"num":0}])", packet));
  const std::vector<std::uint8_t> tooMany(101);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(decoder.bytes(tooMany, packet));
  EXPECT_EQ(skipped, std::vector<std::string>{"its attachments are too long 3"});
  EXPECT_TRUE(decoder.text(R"(2["f"])", packet));
}

TEST(EngineIOHandshake, timesAreKeptWithinReason) {
  // In seconds; the given interval, then what is read of it.
  const std::pair<const char*, int> cases[] = {
      {"25000", 25}, {"-1", 1},      {"0", 1},     {"1", 1},       {"99999999999999", 300},
      {"1e300", 25}, {"\"50\"", 25}, {"null", 25}, {"30000.0", 30}};
  for (const auto& [given, seconds] : cases) {
    const auto handshake =
        decodeHandshake(std::string(R"({"sid":"s","pingInterval":)").append(given).append("}"));
    ASSERT_TRUE(handshake) << given;
    EXPECT_EQ(handshake->pingInterval, std::chrono::seconds(seconds)) << given;
    EXPECT_EQ(handshake->pingTimeout, std::chrono::seconds(20));
  }
}

TEST(WebSocketEndpoint, urlsAndTheirTargets) {
  struct Case {
    const char* url;
    const char* path;
    bool secure;
    const char* host;
    const char* port;
    const char* authority;
    const char* target;
  };
  const Case cases[] = {
      {"https://a.example", "/socket.io", true, "a.example", "443", "a.example", "/socket.io/"},
      {"HTTP://A.example:8080/ignored?x#y", "abc/socket.io/", false, "A.example", "8080",
       "A.example:8080", "/abc/socket.io/"},
      {"wss://[::1]:443", "", true, "::1", "443", "[::1]", "/"},
      {"ws://127.0.0.1:1", "/a b\r\nX: y?z#%41", false, "127.0.0.1", "1", "127.0.0.1:1",
       "/a%20b%0D%0AX:%20y%3Fz%23%41/"},
  };
  for (const auto& expected : cases) {
    const auto endpoint = WebSocketEndpoint::make(expected.url);
    ASSERT_TRUE(endpoint) << expected.url;
    EXPECT_EQ(endpoint->secure, expected.secure);
    EXPECT_EQ(endpoint->host, expected.host);
    EXPECT_EQ(endpoint->port, expected.port);
    EXPECT_EQ(endpoint->authority, expected.authority);
    EXPECT_EQ(makeTarget(expected.path, "a=1", {{"k&", "v =\xc3\xa9~"}}),
              std::string(expected.target) + "?a=1&k%26=v%20%3D%C3%A9~");
  }
  EXPECT_EQ(WebSocketEndpoint::make("wss://a/b%20c?d=e#f")->target, "/b%20c?d=e");
  EXPECT_EQ(WebSocketEndpoint::make("wss://a")->target, "/");
  for (const char* url :
       {"", "example.org", "//example.org", "ftp://example.org", "https://", "https://:443",
        "https://a b", "https://a:70000", "https://a:0", "https://a%0d%0ab"})
    EXPECT_FALSE(WebSocketEndpoint::make(url)) << url;
}

TEST(SocketIOReconnectDelay, growsToItsMaximum) {
  LinkOptions options;
  options.reconnectWait = std::chrono::seconds(1);
  options.reconnectWaitMax = std::chrono::seconds(5);
  struct Case {
    int attempt;
    double chance;
    int milliseconds;
  };
  for (const auto& [attempt, chance, expected] :
       {Case{0, 0, 1000}, Case{0, 1, 1500}, Case{1, 0.5, 2500}, Case{2, 0, 4000}, Case{2, 1, 5000},
        Case{3, 0, 5000}, Case{1'000'000, 1, 5000}})
    EXPECT_EQ(reconnectDelay(options, attempt, chance).count(), expected) << attempt;
  options.reconnectWait = std::chrono::milliseconds::max();
  options.reconnectWaitMax = std::chrono::milliseconds(-1);
  EXPECT_EQ(reconnectDelay(options, 3, 1).count(), 0);
}

}  // namespace
}  // namespace kestrova::test
