#include <kestrova/platform/linux/http/CurlSession.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

namespace kestrova::test {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using namespace std::chrono_literals;

/// Whether the process comes to have `count` threads of libcurl's. A thread that has been joined
/// may stay visible for a moment.
bool hasLoops(int count) {
  for (int i = 0; i < 4000; ++i) {
    int found = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::string name;
      std::getline(std::ifstream(task.path() / "comm"), name);
      found += name == "kestrova-http";
    }
    if (found == count) return true;
    std::this_thread::sleep_for(5ms);
  }
  return false;
}

Response answer(int status, std::string body) {
  Response response;
  response.result(static_cast<unsigned>(status));
  response.body() = std::move(body);
  return response;
}

Response redirect(const std::string& to) {
  auto response = answer(302, "moved");
  response.set(http::field::location, to);
  return response;
}

struct URLSessionTest : ::testing::Test {
  std::future<URLResponse> send(URLRequest request) {
    return asio::co_spawn(pool, session->data(std::move(request)), asio::use_future);
  }
  std::string failure(URLRequest request) {
    try {
      send(std::move(request)).get();
    } catch (const URLError& error) {
      return error.what();
    }
    return "no failure";
  }
  asio::thread_pool pool{1};
  std::shared_ptr<URLSession> session = makeURLSession();
};

TEST_F(URLSessionTest, requestArrivesAsItWasWritten) {
  Request seen;
  LoopbackServer server([&](const Request& request) -> std::optional<Response> {
    seen = request;
    return answer(401, R"({"error":"no"})");
  });
  struct Case {
    const char* method;
    std::string body;
  };
  for (const auto& [method, body] :
       {Case{"GET", ""}, Case{"POST", std::string("{\"a\":\"\0\"}", 9)}, Case{"POST", ""},
        Case{"PUT", "x"}, Case{"DELETE", ""}, Case{"POST", std::string(2'000'000, 'p')}}) {
    URLRequest request;
    request.method = method;
    request.url = server.url() + "/path?q=1";
    request.headers = {{"Authorization", "token"}, {"Content-Type", "application/json"}, {"X", ""}};
    request.body = body;
    const auto response = send(request).get();
    EXPECT_EQ(response.status, 401);
    EXPECT_EQ(response.body, R"({"error":"no"})");
    EXPECT_EQ(seen.method_string(), method);
    EXPECT_EQ(seen.target(), "/path?q=1");
    EXPECT_EQ(seen.body(), body);
    EXPECT_EQ(seen["Authorization"], "token");
    EXPECT_EQ(seen["Content-Type"], "application/json");
    EXPECT_NE(seen.find("X"), seen.end());
    EXPECT_EQ(seen.find("Expect"), seen.end());
  }
  EXPECT_EQ(server.connections(), 1);
}

TEST_F(URLSessionTest, redirectsAreFollowedForGetOnlyAndNotForEver) {
  LoopbackServer server([&](const Request& request) -> std::optional<Response> {
    const int left = std::atoi(std::string(request.target().substr(1)).c_str());
    if (left == 0) return answer(200, "there");
    return redirect(std::string("/").append(std::to_string(left - 1)));
  });
  EXPECT_EQ(send({.url = server.url() + "/5"}).get().body, "there");
  EXPECT_NE(failure({.url = server.url() + "/6"}).find("redirects"), std::string::npos);
  EXPECT_EQ(send({.method = "POST", .url = server.url() + "/1", .body = "x"}).get().status, 302);
}

TEST_F(URLSessionTest, failuresNameTheirCause) {
  LoopbackServer silent([](const Request&) { return std::nullopt; });
  LoopbackServer elsewhere([](const Request&) { return redirect("file:///etc/hostname"); });
  std::string closedPort;
  {
    LoopbackServer gone([](const Request&) { return std::nullopt; });
    closedPort = gone.url();
  }
  struct Case {
    URLRequest request;
    const char* cause;
  };
  const Case cases[] = {
      {{.url = silent.url(), .timeout = 50ms}, "timed out after 50 ms"},
      {{.url = closedPort}, "connection refused"},
      {{.url = "https://no-such-host.invalid"}, "the host's name is not known"},
      {{.url = "https://https://a.example"}, ""},
      {{.url = ""}, ""},
      {{.url = "file:///etc/hostname"}, "Protocol"},
      {{.url = elsewhere.url()}, "Protocol"},
      {{.method = "GET /\r\nX: y", .url = silent.url()}, "method"},
      {{.url = silent.url(), .headers = {{"A", "hush\r\nB: c"}}}, "header"},
      {{.url = silent.url(), .headers = {{"A:", "hush"}}}, "header"},
  };
  for (const auto& [request, cause] : cases) {
    const auto text = failure(request);
    EXPECT_NE(text, "no failure") << request.url;
    EXPECT_NE(text.find(cause), std::string::npos) << request.url << ": " << text;
    EXPECT_EQ(text.find("hush"), std::string::npos);
  }
}

TEST_F(URLSessionTest, bodyBeyondTheLimitIsAFailure) {
  std::size_t size = maxResponseBytes;
  LoopbackServer server([&](const Request&) { return answer(200, std::string(size, 'x')); });
  EXPECT_EQ(send({.url = server.url()}).get().body.size(), maxResponseBytes);
  ++size;
  EXPECT_NE(failure({.url = server.url()}).find("longer"), std::string::npos);
}

TEST_F(URLSessionTest, certificatesAreVerified) {
  std::string folder = (std::filesystem::temp_directory_path() / "http-XXXXXX").string();
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const auto certify = [&](const std::string& name, const char* days) {
    const auto command = "cd " + folder +
                         " && openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1"
                         " -nodes -subj /CN=test -keyout key -out request 2>/dev/null"
                         " && echo subjectAltName=IP:127.0.0.1 > names"
                         " && openssl x509 -req -in request -signkey key -extfile names -days " +
                         days + " -out cert 2>/dev/null && cat cert key > " + name;
    EXPECT_EQ(std::system(command.c_str()), 0);
    return folder + "/" + name;
  };
  const auto certificate = certify("server.pem", "2");
  const auto outdated = certify("outdated.pem", "-1");
  {
    LoopbackServer server([](const Request&) { return answer(200, "safe"); }, certificate);
    unsetenv("SSL_CERT_FILE");
    EXPECT_EQ(failure({.url = server.url()}),
              "certificate signed by an unknown authority: is SSL_CERT_FILE set?");
    setenv("SSL_CERT_FILE", certificate.c_str(), 1);
    EXPECT_EQ(send({.url = server.url()}).get().body, "safe");
    EXPECT_EQ(failure({.url = server.url("localhost")}),
              "certificate is made out to another host name");
    LoopbackServer late([](const Request&) { return answer(200, "safe"); }, outdated);
    setenv("SSL_CERT_FILE", outdated.c_str(), 1);
    EXPECT_EQ(failure({.url = late.url()}), "certificate has expired");
    setenv("SSL_CERT_FILE", (folder + "/none").c_str(), 1);
    EXPECT_EQ(failure({.url = server.url()}),
              "the file of authorities can't be read: is SSL_CERT_FILE right?");
    unsetenv("SSL_CERT_FILE");
  }
  std::filesystem::remove_all(folder);
}

TEST_F(URLSessionTest, manyAtOnceOnOneThread) {
  std::atomic<int> served{0};
  LoopbackServer server([&](const Request& request) {
    ++served;
    return answer(200, std::string(request.target()));
  });
  EXPECT_TRUE(hasLoops(0));
  std::vector<std::future<URLResponse>> pending;
  for (int i = 0; i < 50; ++i)
    pending.push_back(send({.url = server.url().append("/").append(std::to_string(i))}));
  for (int i = 0; i < 50; ++i)
    EXPECT_EQ(pending[static_cast<std::size_t>(i)].get().body,
              std::string("/").append(std::to_string(i)));
  EXPECT_EQ(served, 50);
  EXPECT_TRUE(hasLoops(1));
}

TEST_F(URLSessionTest, releaseFailsWhatIsPendingAndLeavesNoThread) {
  std::promise<void> asked;
  LoopbackServer silent([&](const Request&) {
    asked.set_value();
    return std::optional<Response>();
  });
  auto other = makeURLSession();
  auto pending = send({.url = silent.url()});
  asked.get_future().wait();
  const auto start = std::chrono::steady_clock::now();
  {
    const auto neverAwaited = session->data({.url = silent.url()});
    session.reset();
  }
  EXPECT_THROW(pending.get(), URLError);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s) << "no time-out was waited for";

  LoopbackServer server([](const Request&) { return answer(200, "still"); });
  auto response = asio::co_spawn(pool, other->data({.url = server.url()}), asio::use_future);
  EXPECT_EQ(response.get().body, "still");
  other.reset();
  EXPECT_TRUE(hasLoops(0));
}

}  // namespace
}  // namespace kestrova::test
