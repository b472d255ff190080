#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../http/LoopbackServer.h"
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova::test {
namespace {

namespace http = boost::beast::http;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A process that exports to `endpoints` and then returns from its main.
class Process {
public:
  explicit Process(std::vector<std::string> endpoints) {
    int ends[2];
    if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
    _id = ::fork();
    if (_id == 0) {
      ::dup2(ends[1], STDOUT_FILENO);
      ::dup2(ends[1], STDERR_FILENO);
      ::close(ends[0]);
      ::close(ends[1]);
      std::vector<char*> arguments{const_cast<char*>(TELEMETRY_PROCESS)};
      for (auto& each : endpoints) arguments.push_back(each.data());
      arguments.push_back(nullptr);
      ::execv(arguments[0], arguments.data());
      ::_exit(127);
    }
    ::close(ends[1]);
    _output = ends[0];
  }

  /// Waits for the end of main and of the process. \returns what lay between the two
  Clock::duration waitForExit() {
    char buffer[4096];
    Clock::time_point leavesMain{};
    for (ssize_t got = 0; (got = ::read(_output, buffer, sizeof buffer)) > 0;) {
      if (output.empty()) leavesMain = Clock::now();
      output.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(_output);
    ::waitpid(_id, &status, 0);
    return Clock::now() - leavesMain;
  }

  std::string output;
  int status = -1;

private:
  pid_t _id = -1;
  int _output = -1;
};

class ProcessExitTest : public testing::Test {
protected:
  void expectQuickExit(std::vector<std::string> endpoints) {
    Process process(std::move(endpoints));
    EXPECT_LT(process.waitForExit(), 2s);
    EXPECT_EQ(process.status, 0);
    EXPECT_EQ(process.output, "leaves main\n") << "and nothing is said about it";
  }
  LoopbackServer::Answer collect() {
    return [this](const Request& request) -> std::optional<Response> {
      const std::scoped_lock held(lock);
      requests.push_back(request);
      return Response(http::status::ok, 11);
    };
  }
  bool wasExported(const std::string& text) {
    const std::scoped_lock held(lock);
    for (const auto& request : requests)
      if (request.body().find(text) != std::string::npos) return true;
    return false;
  }

  std::mutex lock;
  std::vector<Request> requests;
};

TEST_F(ProcessExitTest, theLastSpansArriveAtAServiceThatIsWell) {
  LoopbackServer server(collect());
  expectQuickExit({server.url() + "/otlp/v1/traces?tenant=7"});
  ASSERT_FALSE(requests.empty());
  for (const auto& request : requests) {
    EXPECT_EQ(request.method(), http::verb::post);
    EXPECT_EQ(request.target(), "/otlp/v1/traces?tenant=7");
    EXPECT_EQ(request[http::field::content_type], "application/x-protobuf");
    EXPECT_EQ(request[http::field::authorization], "opaque token");
    EXPECT_TRUE(request[http::field::user_agent].starts_with("OTel-OTLP-Exporter-Cpp/"));
    EXPECT_EQ(request.count(http::field::user_agent), 1U);
  }
  EXPECT_TRUE(wasExported("event 0"));
  EXPECT_TRUE(wasExported("event 1999"));
  EXPECT_TRUE(wasExported("room_r1_"));
}

TEST_F(ProcessExitTest, waitsForNoServiceThatIsNot) {
  LoopbackServer hanging([](const Request&) { return std::nullopt; });
  const auto refusing = [] {
    return LoopbackServer([](const Request&) { return Response(); }).url();
  };
  for (const auto& endpoint :
       {hanging.url(), refusing() + "/v1", std::string("http://10.255.255.1/"),
        std::string("http://no-such-host.invalid/"), std::string("ftp://127.0.0.1/")})
    expectQuickExit({endpoint});
}

TEST_F(ProcessExitTest, oneServiceDoesNotHoldUpAnother) {
  LoopbackServer hanging([](const Request&) { return std::nullopt; });
  LoopbackServer server(collect());
  expectQuickExit({hanging.url(), server.url(), hanging.url()});
  EXPECT_TRUE(wasExported("event 1999"));
}

/// The service of a test machine has a certificate of its own, which `SSL_CERT_FILE` names.
TEST_F(ProcessExitTest, trustsWhatTheEnvironmentNamesAndNothingElse) {
  const auto folder = std::filesystem::path(testing::TempDir()) /
                      ("kestrova-telemetry-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  const auto certificate = (folder / "own.pem").string();
  const auto make =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost"
      " -addext subjectAltName=DNS:localhost -keyout " +
      certificate + " -out " + certificate + ".crt 2>/dev/null && cat " + certificate + ".crt >> " +
      certificate;
  ASSERT_EQ(std::system(make.c_str()), 0);
  {
    LoopbackServer server(collect(), certificate);
    expectQuickExit({server.url("localhost")});
    EXPECT_TRUE(requests.empty());
    ::setenv("SSL_CERT_FILE", (certificate + ".crt").c_str(), 1);
    expectQuickExit({server.url("localhost")});
    ::unsetenv("SSL_CERT_FILE");
  }
  EXPECT_TRUE(wasExported("event 1999"));
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace kestrova::test
