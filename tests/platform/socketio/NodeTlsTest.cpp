#include <gtest/gtest.h>

#include "NodeServer.h"
#include "Probe.h"
#include <cstdlib>

namespace kestrova::test {
namespace {

struct SocketIOTls : ::testing::Test {
  void SetUp() override { setenv("SSL_CERT_FILE", authority.file().c_str(), 1); }
  void TearDown() override { unsetenv("SSL_CERT_FILE"); }

  std::vector<std::string> tryOnce(const std::string& url) {
    auto config = Probe::quickConfig();
    config.reconnects = false;
    config.connectParams = {{"secret", "hush"}};
    Probe probe(url, config);
    probe.client->connect();
    EXPECT_TRUE(probe.log->waitFor("disconnect"));
    return probe.log->lines();
  }
  static std::string at(const char* host, const NodeServer& server) {
    return std::string(host) + ":" + std::to_string(server.port());
  }
  Authority authority;
};

TEST_F(SocketIOTls, trustedByNameAndByAddress) {
  NodeServer server(authority.certify("IP:127.0.0.1,DNS:localhost"));
  for (const char* host : {"https://127.0.0.1", "wss://localhost"}) {
    Probe probe(at(host, server));
    ASSERT_TRUE(probe.connect());
    const SocketItems items{json("{\"n\":1}"), bytes(std::string(100'000, 'x'))};
    EXPECT_EQ(probe.ask("echo", items), items);
  }
}

TEST_F(SocketIOTls, refusedCertificateNamesItsCause) {
  NodeServer other(authority.certify("DNS:other.example,IP:127.0.0.2"));
  NodeServer expired(authority.certify("IP:127.0.0.1", -1));
  NodeServer plain;
  std::string closedPort;
  {
    NodeServer gone;
    closedPort = at("https://127.0.0.1", gone);
  }
  const std::pair<std::string, std::string> cases[] = {
      {at("https://127.0.0.1", other), "certificate is made out to another host name"},
      {at("https://localhost", other), "certificate is made out to another host name"},
      {at("https://127.0.0.1", expired), "certificate has expired"},
      {at("https://127.0.0.1", plain), "TLS handshake failed"},
      {at("https://no-such-host.invalid", plain), "the host's name"},
      {closedPort, "connection failed: connection refused"},
  };
  for (const auto& [url, cause] : cases) {
    const auto lines = tryOnce(url);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(cause), std::string::npos) << lines[0];
    for (const auto& line : lines) EXPECT_EQ(line.find("hush"), std::string::npos) << line;
  }
}

TEST_F(SocketIOTls, unknownAuthorityIsRefused) {
  NodeServer server(authority.certify("IP:127.0.0.1"));
  unsetenv("SSL_CERT_FILE");
  const auto lines = tryOnce(at("https://127.0.0.1", server));
  EXPECT_NE(lines.at(0).find("certificate signed by an unknown authority: is SSL_CERT_FILE set?"),
            std::string::npos)
      << lines.at(0);
}

}  // namespace
}  // namespace kestrova::test
