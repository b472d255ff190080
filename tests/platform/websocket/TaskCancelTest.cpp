#include <gtest/gtest.h>

#include "ScriptedServer.h"
#include "TaskProbe.h"
#include <future>

namespace kestrova::test {
namespace {

using Lines = std::vector<std::string>;

/// Greets, and notes how each connection ends: its last code, or 0 for one that never was.
class NotingServer {
public:
  std::string url() const { return _server.url(); }
  std::uint16_t code() { return _code.get_future().get(); }

private:
  std::promise<std::uint16_t> _code;
  ScriptedServer _server{{[this](ScriptedPeer& peer) {
    std::uint16_t code = 0;
    try {
      peer.accept();
      peer.text("hello");
      code = peer.closeCode();
    } catch (const std::exception&) {
      // It went before it was there.
    }
    _code.set_value(code);
  }}};
};

/// Something that ends only with those who hold it.
std::shared_ptr<void> token(std::promise<void>& ended) {
  return {nullptr, [&ended](void*) { ended.set_value(); }};
}

TEST(WebSocketTaskCancel, sendsWhatWasSentBeforeAndTheCode) {
  const std::pair<std::uint16_t, std::uint16_t> codes[] = {{1001, 1001}, {4002, 4002}, {1000, 1000},
                                                           {0, 1001},    {1005, 1001}, {1015, 1001},
                                                           {9999, 1001}};
  for (const auto& [given, told] : codes) {
    SCOPED_TRACE(given);
    std::promise<std::string> heard;
    ScriptedServer server({[&](ScriptedPeer& peer) {
      peer.accept();
      std::size_t size = 0;
      for (int i = 0; i < 100; ++i) size += peer.read().size();
      heard.set_value(std::to_string(size) + " " + std::to_string(peer.closeCode()));
    }});
    const auto probe = startTask(server.url());
    ASSERT_TRUE(probe->log.waitFor("open"));
    probe->act([code = given](WebSocketTask& task) {
      for (int i = 0; i < 100; ++i) task.send(std::vector<std::uint8_t>(10'000), nullptr);
      task.cancel(code);
      task.cancel(4999);
    });
    EXPECT_EQ(heard.get_future().get(), "1000000 " + std::to_string(told));
  }
}

TEST(WebSocketTaskCancel, isTheEndOfAllTellingInEachHandler) {
  for (const std::string at : {"open", "sent", "text hello"}) {
    for (const bool drops : {false, true}) {
      SCOPED_TRACE(at + (drops ? ", dropped" : ", cancelled"));
      NotingServer server;
      std::promise<void> released;
      const auto probe = std::make_shared<TaskProbe>(server.url());
      probe->held = token(released);
      probe->told = [&](const std::string& line) {
        if (line == "open" && at == "sent") probe->send("x");
        if (line != at) return;
        probe->send("more");
        probe->receive();
        if (drops)
          probe->task.reset();
        else
          probe->cancel();
        probe->send("nothing");
        probe->receive();
      };
      probe->queue->sync([&] {
        probe->start();
        if (at == "text hello") probe->receive();
      });
      EXPECT_EQ(server.code(), 1001);
      released.get_future().wait();
      probe->settle();
      EXPECT_EQ(probe->log.lines().back(), at);
      EXPECT_EQ(probe->log.count("ASTRAY"), 0u);
    }
  }
}

TEST(WebSocketTaskCancel, isTheEndOfAllTellingWithinTheEnd) {
  for (const std::string at : {"failed", "close", "complete"}) {
    for (const bool drops : {false, true}) {
      SCOPED_TRACE(at + (drops ? ", dropped" : ", cancelled"));
      ScriptedServer server({[&](ScriptedPeer& peer) {
        peer.accept();
        peer.close(1000);
      }});
      std::promise<void> released;
      const auto probe = std::make_shared<TaskProbe>(server.url());
      probe->held = token(released);
      probe->told = [&](const std::string& line) {
        if (!line.starts_with(at)) return;
        probe->receive();
        probe->send("more");
        if (drops)
          probe->task.reset();
        else
          probe->cancel();
      };
      probe->queue->sync([&] {
        probe->start();
        probe->receive();
      });
      released.get_future().wait();
      probe->settle();
      EXPECT_TRUE(probe->log.lines().back().starts_with(at)) << probe->log.lines().back();
    }
  }
}

TEST(WebSocketTaskCancel, beforeItIsOpenHangsUp) {
  for (const bool drops : {false, true}) {
    std::promise<void> asked;
    std::promise<void> gone;
    ScriptedServer server({[&](ScriptedPeer& peer) {
      char buffer[4096];
      peer.socket().read_some(boost::asio::buffer(buffer));
      asked.set_value();
      boost::system::error_code error;
      while (!error) peer.socket().read_some(boost::asio::buffer(buffer), error);
      gone.set_value();
    }});
    std::promise<void> released;
    const auto probe = std::make_shared<TaskProbe>(server.url());
    probe->held = token(released);
    probe->start();
    probe->receive();
    asked.get_future().wait();
    if (drops)
      probe->task.reset();  // from a thread that is not the queue's
    else
      probe->cancel();
    gone.get_future().wait();
    released.get_future().wait();
    probe->settle();
    EXPECT_EQ(probe->log.lines(), Lines{});
  }
}

TEST(WebSocketTaskCancel, beforeItsResumeMakesNoConnection) {
  std::promise<void> released;
  const auto queue = SerialQueue::make("cancelled");
  Log log;
  WebSocketTask::Events events;
  events.didComplete = [&log, kept = token(released)](const auto&) { log.add("complete"); };
  // Nothing listens there, so a connection would end at once.
  const auto task =
      makeWebSocketTask("ws://127.0.0.1:1", queue, std::move(events), Runtime::network());
  queue->sync([&] {
    task->cancel(1001);
    task->resume();
    task->receive([&log](const auto&) { log.add("received"); });
    task->send({}, [&log](const auto&) { log.add("sent"); });
  });
  released.get_future().wait();
  queue->sync([] {});
  EXPECT_EQ(log.lines(), Lines{});
}

TEST(WebSocketTaskCancel, theEndLetsGoOfTheHandlersThoughTheTaskStays) {
  ScriptedServer server({[](ScriptedPeer& peer) {
    peer.accept();
    peer.close(1000);
  }});
  std::promise<void> released;
  const auto probe = std::make_shared<TaskProbe>(server.url());
  probe->held = token(released);
  probe->start();
  released.get_future().wait();
  ASSERT_TRUE(probe->log.waitFor("complete"));
  EXPECT_TRUE(probe->task);
}

}  // namespace
}  // namespace kestrova::test
