// bench_inspector [ticks]: what looking at a meeting of ten costs, in percent of a core, where each
// tick stands for two seconds: 30 streams with their numbers, and 200 lines of the trace. Each
// comes once the one before has been taken in, so that the inspector's thread wakes for every one
// of them, as it does in a meeting. Then, what it costs to open a page on two minutes of that.

#include <kestrova/inspector/Clock.h>
#include <kestrova/inspector/EventFeed.h>
#include <kestrova/inspector/Inbox.h>
#include <kestrova/inspector/LoopThread.h>
#include <kestrova/inspector/TraceWatch.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>
#include <kestrova/tracing/SdkTracer.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kestrova::bench {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace kestrova::inspector;

constexpr int people = 10;
constexpr int streamsEach = 3;
constexpr int spansPerTick = 50;  // a start and an end each
constexpr int eventsPerTick = 100;
constexpr double secondsPerTick = 2;
constexpr int mostPages = 8;

double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// A page that reads all it gets, and counts the ticks.
class Page {
public:
  explicit Page(const std::string& address) : _socket(_loop) {
    const auto port = address.substr(address.rfind(':') + 1);
    const auto path = port.substr(port.find('/'));
    _socket.connect(
        {asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(std::stoi(port))});
    const auto request = "GET " + path +
                         "events HTTP/1.1\r\nHost: 127.0.0.1:" + port.substr(0, port.find('/')) +
                         "\r\n\r\n";
    asio::write(_socket, asio::buffer(request));
    _thread = std::thread([this] { read(); });
    _opened.get_future().wait();
  }
  ~Page() {
    _socket.shutdown(tcp::socket::shutdown_both);
    _thread.join();
  }
  void await(int ticks) const {
    for (int seen = _ticks; seen < ticks; seen = _ticks) _ticks.wait(seen);
  }
  /// Of all that came.
  std::size_t bytes() const { return _bytes; }
  void awaitSnapshot() const { _snapshotBytes.wait(0); }
  std::size_t snapshotBytes() const { return _snapshotBytes; }

private:
  void read() {
    std::string text(1 << 16, '\0');
    std::string line;  // its beginning
    std::size_t length = 0;
    boost::system::error_code error;
    while (const auto count = _socket.read_some(asio::buffer(text), error)) {
      _bytes += count;
      for (std::size_t i = 0; i < count; ++i) {
        ++length;
        if (text[i] != '\n') {
          if (line.size() < 32) line += text[i];
          continue;
        }
        if (line.starts_with(R"(data: {"format")")) {
          _snapshotBytes = length;
          _snapshotBytes.notify_all();
        }
        length = 0;
        if (line == "event: snapshot") _opened.set_value();
        if (line == "event: samples") {
          ++_ticks;
          _ticks.notify_all();
        }
        line.clear();
      }
    }
  }

  asio::io_context _loop;
  tcp::socket _socket;
  std::promise<void> _opened;
  std::atomic<int> _ticks{0};
  std::atomic<std::size_t> _bytes{0};
  std::atomic<std::size_t> _snapshotBytes{0};
  std::thread _thread;
};

/// The inspector without a meeting.
class Watched {
public:
  Watched() { _thread.start(); }
  ~Watched() {
    _traces.reset();
    _thread.loop()->stop();
    _thread.join();
  }
  Inbox& inbox() { return *_inbox; }
  const std::string& address() { return _feed.server().address(); }
  /// Waits until everything was taken in; gives what the thread has worked so far.
  double settle() {
    std::promise<double> worked;
    asio::post(*_thread.loop(), [&] { worked.set_value(threadSeconds()); });
    return worked.get_future().get();
  }

private:
  LoopThread _thread;
  EventFeed _feed{*_thread.loop(), {.mostPages = mostPages + 1}, ""};
  const std::shared_ptr<Inbox> _inbox = std::make_shared<Inbox>(
      _thread.loop(), [this](std::vector<Inbox::Change> changes, std::size_t left) {
        _feed.take(std::move(changes), left);
      });
  std::optional<TraceWatch> _traces{_inbox};
};

std::string streamId(int person, int stream) {
  return "5f0c1e2a-8f4b-4a52-9f60-" + std::to_string(person * streamsEach + stream);
}

void enter(Inbox& inbox) {
  for (int person = 0; person < people; ++person) {
    const auto id = std::to_string(person);
    inbox.put([id](MeetingRecord& record) {
      record.participantCame({.id = id, .name = "Participant " + id, .mode = "SEND_AND_RECV"});
    });
    for (int stream = 0; stream < streamsEach; ++stream)
      inbox.put([id, name = streamId(person, stream)](MeetingRecord& record) {
        record.streamStarted(id, {.id = name, .kind = "video"});
      });
  }
}

/// Does what a thread of the library does, one thing at a time, and adds up what that takes it.
class Teller {
public:
  /// \param watched who has taken in each before the next comes; may be nobody
  explicit Teller(Watched* watched) : _watched(watched) {}
  template <class Work>
  void tell(const Work& work) {
    const auto start = threadSeconds();
    work();
    _seconds += threadSeconds() - start;
    if (_watched) _watched->settle();
  }
  double seconds() const { return _seconds; }

private:
  Watched* const _watched;
  double _seconds = 0;
};

void traceTick(Teller& teller) {
  const std::string id = "5f0c1e2a-8f4b-4a52-9f60-0d6a5b7c8d9e";
  for (int i = 0; i < spansPerTick; ++i) {
    std::optional<SpanScope> span;
    teller.tell([&] {
      span.emplace(
          startSpan("Consuming Remote Track",
                    {.attributes = {{"peerId", id}, {"consumerId", id}, {"kind", "video"}}}));
    });
    for (int event = 0; event < eventsPerTick / spansPerTick; ++event)
      teller.tell([&] {
        traceEvent("Consumer made", {.attributes = {{"consumerId", id}, {"bytes", 1200}},
                                     .parentScope = *span,
                                     .category = EventCategory::telemetry});
      });
    teller.tell([&] { endSpan(*span, {.message = "done"}); });
  }
}

void measureTick(Teller& teller, Inbox& inbox, int tick) {
  const auto measure = [&](const std::string& id, int number) {
    const double vary = (tick * 31 + number) % 97;
    inbox.put([id, sample = StreamSample{.t = now(),
                                         .bitrateKbps = 812.517 + vary,
                                         .framesPerSecond = 29.0 + vary / 100,
                                         .width = 1280,
                                         .height = 720,
                                         .roundTripMs = 12.25 + vary / 7,
                                         .lossPercent = vary / 31,
                                         .jitterMs = 3.5 + vary / 11,
                                         .freezes = tick / 10}](MeetingRecord& record) {
      record.sampled(id, sample, "VP8");
    });
  };
  for (int person = 0; person < people; ++person)
    for (int stream = 0; stream < streamsEach; ++stream)
      teller.tell([&] { measure(streamId(person, stream), person * streamsEach + stream); });
}

struct Cost {
  double meeting = 0;    ///< percent of a core on the threads of the library
  double inspector = 0;  ///< and on the inspector's
  double kilobytes = 0;  ///< a second, to each page
  double openingMs = 0;  ///< the inspector's thread, for one more page at the end
  double snapshotKilobytes = 0;
};

Cost bare(int ticks) {
  Teller teller(nullptr);
  for (int tick = 0; tick < ticks; ++tick) traceTick(teller);
  return {.meeting = teller.seconds() / (ticks * secondsPerTick) * 100};
}

Cost inspected(int ticks, int pageCount) {
  Watched watched;
  enter(watched.inbox());
  std::vector<std::unique_ptr<Page>> pages;
  for (int i = 0; i < pageCount; ++i) pages.push_back(std::make_unique<Page>(watched.address()));
  const auto before = watched.settle();
  Teller teller(&watched);
  for (int tick = 0; tick < ticks; ++tick) {
    traceTick(teller);
    measureTick(teller, watched.inbox(), tick);
    // The samples of a tick are told when the next one begins, or a moment later.
    for (const auto& page : pages) page->await(tick);
  }
  const auto seconds = ticks * secondsPerTick;
  const auto worked = watched.settle();
  Cost cost{.meeting = teller.seconds() / seconds * 100,
            .inspector = (worked - before) / seconds * 100};
  if (!pages.empty()) cost.kilobytes = static_cast<double>(pages[0]->bytes()) / seconds / 1000;
  const Page late(watched.address());
  late.awaitSnapshot();
  cost.openingMs = (watched.settle() - worked) * 1000;
  cost.snapshotKilobytes = static_cast<double>(late.snapshotBytes()) / 1000;
  return cost;
}

void print(const char* what, const Cost& cost, const Cost& base) {
  const double added = cost.meeting - base.meeting;
  std::printf("%-13s meeting's threads +%.3f %%, inspector's %.3f %%, together %.3f %%; %.1f kB/s",
              what, added, cost.inspector, added + cost.inspector, cost.kilobytes);
  std::printf("; one more page %.1f ms, %.0f kB\n", cost.openingMs, cost.snapshotKilobytes);
}

}  // namespace

int main(int argc, char** argv) {
  const int ticks = argc > 1 ? std::atoi(argv[1]) : 300;
  if (ticks <= 0) return std::fputs("usage: bench_inspector [ticks]\n", stderr), 2;
  std::printf("%d participants, %d streams, 100 lines of trace a second, %.0f s\n", people,
              people * streamsEach, ticks * secondsPerTick);
  Platform platform;
  platform.scheduler = Runtime::scheduler();
  Platform::install(std::move(platform));
  const auto base = bare(ticks);
  std::printf("without an inspector the trace takes %.3f %%\n", base.meeting);
  print("no page", inspected(ticks, 0), base);
  print("1 page", inspected(ticks, 1), base);
  print("8 pages", inspected(ticks, mostPages), base);
  return 0;
}

}  // namespace kestrova::bench

int main(int argc, char** argv) {
  return kestrova::bench::main(argc, argv);
}
