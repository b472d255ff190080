#include <kestrova/inspector/PageServer.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "Browser.h"
#include <chrono>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrova::inspector {
namespace {

using test::Browser;
using test::getRequest;
using test::pathOf;
using test::portOf;

/// A server on a thread of its own.
class Served {
public:
  explicit Served(PageServer::Options options = {}, std::string greeting = R"({"hello":1})")
      : server(_loop, options, "<p>page</p>", [greeting] { return greeting; }),
        _thread([this] { _loop.run(); }) {}
  ~Served() {
    _loop.stop();
    _thread.join();
  }

  /// Runs `work` on the thread, and waits for it.
  void onThread(const std::function<void()>& work) {
    std::promise<void> done;
    boost::asio::post(_loop, [&] {
      work();
      done.set_value();
    });
    done.get_future().wait();
  }
  void send(std::string_view event, std::string_view data) {
    onThread([&] { server.send(event, data); });
  }
  std::uint16_t port() const { return portOf(server.address()); }
  std::string host() const { return "127.0.0.1:" + std::to_string(port()); }
  std::string path() const { return pathOf(server.address()); }
  /// What is answered to these bytes.
  std::string answer(const std::string& bytes) const {
    Browser browser(port());
    browser.send(bytes);
    return browser.readAll();
  }
  /// A page that has got its greeting.
  Browser page() const {
    auto browser = Browser::visiting(server.address(), "events");
    browser.readHead();
    EXPECT_EQ(browser.nextEvent().name, "snapshot");
    return browser;
  }

private:
  boost::asio::io_context _loop{1};
  const boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work{
      _loop.get_executor()};

public:
  PageServer server;

private:
  std::thread _thread;
};

std::string statusOf(const std::string& answer) {
  return answer.empty() ? "nothing" : answer.substr(9, 3);
}

/// Asks for the stream again and again until there is a place for it.
void awaitPlace(const Served& served) {
  std::string head;
  do head = Browser::visiting(served.server.address(), "events").readHead();
  while (statusOf(head) == "503");
  EXPECT_EQ(statusOf(head), "200");
}

TEST(PageServerTest, ServesThePageToWhomHasTheKeyAndComesByItsOwnName) {
  const Served served;
  auto wrongKey = served.path();
  wrongKey[5] = wrongKey[5] == '0' ? '1' : '0';
  const auto here = served.host();
  const auto port = std::to_string(served.port());
  struct Row {
    std::string request;
    std::string status;
  };
  const Row rows[] = {
      {getRequest(served.path(), here), "200"},
      {getRequest(served.path(), "localhost:" + port), "200"},
      {getRequest(wrongKey, here), "404"},
      {getRequest(wrongKey + "events", here), "404"},
      {getRequest("/", here), "404"},
      {getRequest("//", here), "404"},
      {getRequest("/favicon.ico", here), "404"},
      {getRequest(served.path() + "page.html", here), "404"},
      {getRequest(served.path() + "?x", here), "404"},
      {getRequest(served.path().substr(0, 10), here), "404"},
      {getRequest(served.server.address(), here), "404"},
      {"HEAD " + getRequest(served.path(), here).substr(4), "404"},
      {"POST " + served.path() + " HTTP/1.1\r\nHost: " + here +
           "\r\nContent-Length: 5\r\n\r\nhello",
       "404"},
      // A name of somebody else's that was made to lead here.
      {getRequest(served.path(), "evil.example:" + port), "403"},
      {getRequest(served.path(), "127.0.0.1"), "403"},
      {getRequest(served.path() + "events", "127.0.0.1:1"), "403"},
      {"GET " + served.path() + " HTTP/1.1\r\n\r\n", "403"},
      {"GET " + served.path() + " HTTP/1.1\r\nHost: " + here + "\r\nHost: evil.example\r\n\r\n",
       "403"},
  };
  for (const auto& row : rows) {
    const auto answer = served.answer(row.request);
    EXPECT_EQ(statusOf(answer), row.status) << row.request;
    EXPECT_EQ(answer.ends_with("\r\n\r\n"), row.status != "200") << "a body, or none: " << answer;
    EXPECT_NE(answer.find("Content-Security-Policy: default-src 'none'; connect-src 'self'; "),
              std::string::npos);
    EXPECT_NE(answer.find("Cache-Control: no-store\r\n"), std::string::npos);
  }
  EXPECT_TRUE(served.answer(rows[0].request).ends_with("\r\n\r\n<p>page</p>"));
  EXPECT_FALSE(Browser(served.port(), "127.0.0.2").isConnected()) << "loopback's one address only";
  EXPECT_NE(Served().path(), served.path());
  EXPECT_EQ(served.path().size(), 34U) << "128 bits";
}

TEST(PageServerTest, OutlivesGarbageAndThoseWhoDontFinishTheirRequest) {
  PageServer::Options options;
  options.limits.request = std::chrono::milliseconds(50);
  const Served served(options);
  std::string noise;
  for (int i = 0; i < 3000; ++i) noise += static_cast<char>(i * 7919 % 251);
  const std::string garbage[] = {
      noise,
      "\r\n\r\n",
      "GET\r\n\r\n",
      "GET / HTTP/9.9\r\n\r\n",
      std::string("GET /\0 HTTP/1.1\r\n\r\n", 19),
      std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11),
      "GET / HTTP/1.1\r\nX: " + std::string(100'000, 'x') + "\r\n\r\n",
      "GET /" + std::string(20'000, 'x') + " HTTP/1.1\r\n\r\n",
      "GET / HTTP/1.1\r\nHo",
      "",
  };
  for (const auto& bytes : garbage) EXPECT_EQ(served.answer(bytes), "") << bytes.substr(0, 30);
  EXPECT_EQ(statusOf(served.answer(getRequest(served.path(), served.host()))), "200");
}

TEST(PageServerTest, TellsEveryPageFromItsGreetingOn) {
  Served served;
  served.send("early", R"({"n":0})");
  auto first = served.page();
  served.send("one", R"({"n":1})");
  auto second = served.page();
  served.send("two", R"({"n":2})");
  EXPECT_EQ(first.nextEvent().name, "one");
  EXPECT_EQ(first.nextEvent().name, "two");
  EXPECT_EQ(second.nextEvent().name, "two");
}

TEST(PageServerTest, TakesNoMorePagesThanItShouldUntilOneGoes) {
  PageServer::Options options;
  options.mostPages = 2;
  Served served(options);
  auto staying = served.page();
  {
    auto leaving = served.page();
    EXPECT_EQ(statusOf(served.answer(getRequest(served.path() + "events", served.host()))), "503");
  }
  // Its going is seen when it is: until then the place is taken.
  awaitPlace(served);
  served.send("still", "{}");
  EXPECT_EQ(staying.nextEvent().name, "still");
}

TEST(PageServerTest, CutsOffAPageThatDoesNotReadAndNobodyElse) {
  PageServer::Options options;
  options.limits.waitingBytes = 300'000;
  Served served(options);
  auto slow = Browser::visiting(served.server.address(), "events", 4096);
  slow.readHead();
  auto quick = served.page();
  const auto data = R"({"text":")" + std::string(100'000, 'x') + "\"}";
  // Far more than the system takes in for a page that doesn't read.
  constexpr int count = 200;
  for (int i = 0; i < count; ++i) {
    served.send("big", data);
    ASSERT_EQ(quick.nextEvent().data.size(), 1U) << i;
  }
  const auto rest = slow.readAll();
  EXPECT_LT(rest.size(), count * data.size());
  served.send("more", "{}");
  EXPECT_EQ(quick.nextEvent().name, "more");
}

TEST(PageServerTest, WhatAStreamBeginsWithCountsAsWaiting) {
  PageServer::Options options;
  options.limits.waitingBytes = 10'000'000;
  Served served(options, R"({"text":")" + std::string(8'000'000, 'x') + "\"}");
  const auto data = R"({"text":")" + std::string(1'000'000, 'x') + "\"}";
  auto page = Browser::visiting(served.server.address(), "events", 4096);
  page.readHead();
  served.send("first", data);
  EXPECT_EQ(page.nextEvent().data.at("text").as_string().size(), 8'000'000U);
  EXPECT_EQ(page.nextEvent().name, "first") << "the limit is not reached";

  auto slow = Browser::visiting(served.server.address(), "events", 4096);
  slow.readHead();
  for (int i = 0; i < 3; ++i) served.send("more", data);
  EXPECT_LT(slow.readSome(10'000'000), 8'000'000U) << "cut off before it has all";

  options.limits.waitingBytes = 7'000'000;
  const Served narrow(options, std::string(8'000'000, 'x'));
  const auto answer = narrow.answer(getRequest(narrow.path() + "events", narrow.host()));
  EXPECT_EQ(statusOf(answer), "503") << "it would never get through";
}

TEST(PageServerTest, APageThatTakesNothingLosesItsPlace) {
  PageServer::Options options;
  options.mostPages = 1;
  options.limits.standstill = std::chrono::milliseconds(50);
  const Served served(options, std::string(8'000'000, 'x'));
  auto still = Browser::visiting(served.server.address(), "events", 4096);
  still.readHead();
  awaitPlace(served);
  EXPECT_LT(still.readAll().size(), 8'000'000U);
}

TEST(PageServerTest, APageThatTakesALittleKeepsItsPlace) {
  PageServer::Options options;
  options.keepAlive = std::chrono::milliseconds(40);
  options.limits.standstill = std::chrono::milliseconds(1500);
  Served served(options, std::string(8'000'000, 'x'));
  auto slow = Browser::visiting(served.server.address(), "events", 4096);
  slow.readHead();
  auto quick = Browser::visiting(served.server.address(), "events");
  quick.readHead();
  quick.readSome(8'000'000);
  // The comments are its clock: twice as long as a page may stand still.
  std::size_t taken = 0;
  for (int comments = 0; comments < 75; ++comments) {
    quick.readSome(3);
    taken += slow.readSome(65'536);
  }
  EXPECT_EQ(taken, 75U * 65'536U);
}

TEST(PageServerTest, WhoShowsNoKeyMakesRoomForOthers) {
  PageServer::Options options;
  options.limits.request = std::chrono::minutes(1);  // nobody goes by that
  Served served(options);
  auto page = served.page();
  std::vector<std::unique_ptr<Browser>> strangers;
  for (int i = 0; i < 100; ++i) {
    strangers.push_back(std::make_unique<Browser>(served.port()));
    // Some say nothing, some ask with no key and don't go.
    if (i % 2 == 0) strangers.back()->send(getRequest("/", served.host()));
  }
  const auto answer = served.answer(getRequest(served.path(), served.host()));
  EXPECT_EQ(statusOf(answer), "200");
  EXPECT_EQ(strangers[1]->readAll(), "") << "the oldest has gone";
  served.send("still", "{}");
  EXPECT_EQ(page.nextEvent().name, "still");
}

TEST(PageServerTest, ItsSocketsAreClosedAtExec) {
  const Served served;
  const auto page = served.page();
  int sockets = 0;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    sockaddr_in place{};
    socklen_t size = sizeof place;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&place), &size) != 0) continue;
    if (ntohs(place.sin_port) != served.port()) continue;
    ++sockets;
    EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(sockets, 2) << "the one that listens, and the page's";
}

TEST(PageServerTest, KeepsQuietPagesOpen) {
  PageServer::Options options;
  options.keepAlive = std::chrono::milliseconds(1);
  options.limits.request = std::chrono::milliseconds(1000);
  Served served(options);
  auto page = served.page();
  while (page.comments() < 3) {
    served.send("tick", "{}");
    page.nextEvent();
  }
}

TEST(PageServerTest, EndsWithWhatWaitsAndTheEnd) {
  Served served;
  auto page = served.page();
  Browser halfway(served.port());
  halfway.send("GET /");
  served.send("last", "{}");
  std::promise<void> finished;
  served.onThread([&] { served.server.finish([&] { finished.set_value(); }); });
  EXPECT_EQ(page.nextEvent().name, "last");
  EXPECT_EQ(page.nextEvent().name, "");
  EXPECT_EQ(halfway.readAll(), "");
  {
    const auto gone = std::move(page);  // closes
  }
  finished.get_future().wait();
  EXPECT_FALSE(Browser(served.port()).isConnected());
}

TEST(PageServerTest, SaysWhichPortIsTaken) {
  const Served served;
  PageServer::Options options;
  options.port = served.port();
  boost::asio::io_context loop;
  try {
    const PageServer second(loop, options, "", [] { return ""; });
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::address_in_use);
    EXPECT_NE(std::string(error.what()).find("127.0.0.1:" + std::to_string(options.port)),
              std::string::npos)
        << error.what();
  }
}

}  // namespace
}  // namespace kestrova::inspector
