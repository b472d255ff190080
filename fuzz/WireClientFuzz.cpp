// The wire client of topic messages between a transport and a server that do what they like: two
// bytes name a step, some steps read more. Whatever happens, every operation ends once and in time,
// nothing is sent while the transport is down, and nothing is left when the client has gone.
#include <kestrova/platform/Platform.h>
#include <kestrova/realtime/PubSubWireClient.h>
#include <kestrova/tracing/SdkTracer.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <tests/support/FastwsFrames.h>
#include <tests/support/ManualScheduler.h>

#include "Require.h"
#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <string>
#include <vector>

using namespace kestrova;
using namespace std::chrono_literals;
using fuzz::require;

namespace {

/// One event loop and a clock that is moved by hand.
struct World {
  World() {
    Platform::install({.background = io.get_executor(), .scheduler = clock});
    SdkTracer::shared().setLogLevel(LogLevel::none);
  }
  void pump() {
    do {
      io.restart();
    } while (io.poll() > 0);
  }
  void advance(std::chrono::milliseconds time) {
    pump();
    const auto limit = clock->now() + time;
    while (clock->runNext(limit)) pump();
  }
  boost::asio::io_context io;
  std::shared_ptr<test::ManualScheduler> clock = std::make_shared<test::ManualScheduler>();
};

World& world() {
  static auto& one = *new World;
  return one;
}

struct FakeTransport final : PubSubTransport {
  void connect() override { require(!closed, "a closed client connects no more"); }
  void send(Bytes frame, SendHandler) override {
    require(isOpen && !closed, "frames are sent while the transport is up");
    const test::ClientFrame read(frame);
    require(read.kind >= 1 && read.kind <= 5 && read.kind != 4, "a frame is one of the client's");
    sent = true;
  }
  void close(bool intentional) override {
    require(intentional, "the client closes for good");
    closed = true;
    isOpen = false;
  }
  void reconnect() override { wantsReconnect = true; }

  bool isOpen = false;
  bool closed = false;
  bool sent = false;
  bool wantsReconnect = false;
};

class Script {
public:
  explicit Script(ByteView steps) : _left(steps) {}
  bool atEnd() const { return _left.empty(); }
  std::uint8_t byte() {
    if (_left.empty()) return 0;
    const auto first = _left.front();
    _left = _left.subspan(1);
    return first;
  }
  ByteView bytes() {
    const std::size_t wanted = byte();
    const auto some = _left.first(std::min(wanted, _left.size()));
    _left = _left.subspan(some.size());
    return some;
  }

private:
  ByteView _left;
};

class Session {
public:
  explicit Session(ByteView steps) : _script(steps) {
    _client->onLiveMessages = [this](std::string_view topic, const auto& messages) {
      require(!messages.empty(), "live messages are told when there are some");
      look(topic, messages);
    };
    _client->onHistoryMessages = [this](std::string_view requestId, std::string_view topic,
                                        const auto& messages, bool) {
      _seen += requestId.size();
      look(topic, messages);
    };
    _client->onMessageDrop = [](std::string_view, std::uint64_t count) {
      require(count > 0, "a gap is of one message at least");
    };
  }

  void run() {
    while (!_script.atEnd()) step(_script.byte());
    finish();
  }

private:
  /// Operations started and ended, their ends counted each.
  using Ends = std::vector<std::shared_ptr<int>>;

  template <class T>
  void start(Task<T> task) {
    auto ends = std::make_shared<int>(0);
    _ends.push_back(ends);
    boost::asio::co_spawn(world().io, std::move(task),
                          [ends](std::exception_ptr, auto&&...) { ++*ends; });
    world().pump();
  }
  void requireAllEnded(const char* what) const {
    for (const auto& ends : _ends) require(*ends == 1, what);
  }

  static std::string topic(std::uint8_t choice) { return "t" + std::to_string(choice % 3); }
  std::string fresh() { return "r" + std::to_string(_ends.size()); }
  std::string known(std::uint8_t choice) const {
    return "r" + std::to_string(_ends.empty() ? 0 : choice % _ends.size());
  }

  void look(std::string_view topic, const PubSubWireClient::Messages& messages) {
    _seen += topic.size();
    for (const auto& message : messages)
      for (const auto text : {message.message, message.senderId, message.timestamp})
        for (const char each : text) _seen += static_cast<unsigned char>(each);
  }

  /// Everything the transport tells comes on the queue.
  void tell(std::function<void()> what) {
    _queue->async(std::move(what));
    world().pump();
  }
  void open() {
    if (_transport->closed || std::exchange(_transport->isOpen, true)) return;
    tell([this] { _transport->onOpen(); });
  }
  void lose(bool unexpected) {
    if (_transport->closed) unexpected = false;
    _transport->isOpen = _transport->wantsReconnect = false;
    tell([this, unexpected] { _transport->onClose(unexpected); });
  }
  void frame(Bytes bytes) {
    if (!_transport->isOpen) return;
    tell([this, bytes = std::move(bytes)] { _transport->onFrame(bytes); });
  }

  void step(std::uint8_t what) {
    if (what % 16 < 5) return operate(what % 16);
    if (what % 16 < 9) return disturb(what % 16);
    serve(what % 16);
  }

  void operate(int what) {
    const auto choice = _script.byte();
    if (what == 0)
      start(_client->subscribe({.topic = topic(choice),
                                .peerId = "me",
                                .oldMessageLimit = choice - 1,
                                .realtimeOverflow = "queue",
                                .requestId = fresh()},
                               choice & 0x80));
    if (what == 1)
      start(_client->publish({.topic = topic(choice), .message = "m", .requestId = fresh()}));
    if (what == 2) start(_client->sendUnsubscribe(topic(choice), fresh()));
    if (what == 3) start(_client->sendUnsubscribe(topic(choice), fresh(), [] { return true; }));
    if (what == 4) _client->removeSubscription(known(choice));
  }

  void disturb(int what) {
    if (what == 5) open();
    if (what == 6) lose(_script.byte() & 1);
    if (what == 7) world().advance(std::chrono::seconds(_script.byte()));
    if (what == 8 && _transport->wantsReconnect) lose(true);
  }

  void serve(int what) {
    const auto choice = _script.byte();
    if (what == 9) frame(test::ackFrame(known(choice), choice & 1, choice & 2 ? "no" : "", "id"));
    if (what == 10) frame(live(choice));
    if (what == 11) {
      const auto owner = choice & 0x40 ? known(choice) : "";
      frame(test::batchFrame({topic(choice), {{.message = "old"}}, true, bool(choice & 1), owner}));
    }
    if (what == 12) frame(test::welcomeFrame(choice * 1000U));
    if (what == 13) frame(test::pingFrame(choice));
    if (what == 14) {
      const auto bytes = _script.bytes();
      frame(Bytes(bytes.begin(), bytes.end()));
    }
    // Seldom, for it ends what can be found.
    if (what == 15 && choice == 0xFF) {
      _client->close();
      world().pump();
    }
  }

  Bytes live(std::uint8_t choice) {
    test::BatchFrame batch{.topic = topic(choice)};
    for (const auto number : _script.bytes())
      batch.messages.push_back({.message = "live", .seqNum = number});
    return test::batchFrame(batch);
  }

  /// Half of the sessions end by themselves, by the time-outs; then all of them are closed.
  void finish() {
    if (_script.byte() == 0 && _ends.size() % 2 == 0) {
      world().advance(2 * PubSubWireClient::operationTimeout);
      requireAllEnded("an operation ends in its time");
    }
    _client->close();
    world().pump();
    requireAllEnded("a closed client has ended its operations, each once");
    _transport->sent = false;
    start(_client->publish({.topic = "t", .requestId = fresh()}));
    requireAllEnded("a closed client refuses at once");
    require(!_transport->sent, "a closed client sends nothing");
    const std::weak_ptr<PubSubWireClient> gone = _client;
    _client.reset();
    world().pump();
    require(gone.expired(), "nothing holds a client that was let go");
    require(world().clock->pending() == 0, "no timer outlives the client");
  }

  Script _script;
  std::shared_ptr<SerialQueue> _queue = SerialQueue::make("fuzz");
  std::shared_ptr<FakeTransport> _transport = std::make_shared<FakeTransport>();
  std::shared_ptr<PubSubWireClient> _client = PubSubWireClient::make(_transport, _queue);
  Ends _ends;
  std::size_t _seen = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t longest = 256;  // beyond it there is nothing new, but it takes its time
  if (size > longest) return 0;
  world();  // the platform, before the first queue is made
  Session(ByteView(data, size)).run();
  return 0;
}
