// bench_inspector [ticks]: what looking at a meeting of ten costs, in percent of a core, where each
// tick stands for two seconds: 30 streams with their numbers, and 200 lines of the trace.

#include <kestrova/inspector/EventFeed.h>
#include <kestrova/inspector/Inbox.h>
#include <kestrova/inspector/TraceWatch.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>
#include <kestrova/tracing/SdkTracer.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/executor_work_guard.hpp>
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
  std::size_t bytes() const { return _bytes; }

private:
  void read() {
    std::string text(1 << 16, '\0');
    std::string line;
    boost::system::error_code error;
    while (const auto count = _socket.read_some(asio::buffer(text), error)) {
      _bytes += count;
      for (std::size_t i = 0; i < count; ++i) {
        if (text[i] != '\n') {
          if (line.size() < 32) line += text[i];
          continue;
        }
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
  std::thread _thread;
};

/// The inspector without a meeting.
class Watched {
public:
  Watched() : _thread([this] { _loop->run(); }) {}
  ~Watched() {
    _traces.reset();
    _loop->stop();
    _thread.join();
  }
  Inbox& inbox() { return *_inbox; }
  const std::string& address() { return _feed.server().address(); }
  /// Waits until everything was taken in; gives what the thread has worked so far.
  double settle() {
    std::promise<double> worked;
    asio::post(*_loop, [&] { worked.set_value(threadSeconds()); });
    return worked.get_future().get();
  }

private:
  const std::shared_ptr<asio::io_context> _loop = std::make_shared<asio::io_context>(1);
  const asio::executor_work_guard<asio::io_context::executor_type> _work{_loop->get_executor()};
  EventFeed _feed{*_loop, {}, ""};
  const std::shared_ptr<Inbox> _inbox =
      std::make_shared<Inbox>(_loop, [this](std::vector<Inbox::Change> changes, std::size_t left) {
        _feed.take(std::move(changes), left);
      });
  std::optional<TraceWatch> _traces{_inbox};
  std::thread _thread;
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

void traceTick() {
  const std::string id = "5f0c1e2a-8f4b-4a52-9f60-0d6a5b7c8d9e";
  for (int i = 0; i < spansPerTick; ++i) {
    const auto span =
        startSpan("Consuming Remote Track",
                  {.attributes = {{"peerId", id}, {"consumerId", id}, {"kind", "video"}}});
    for (int event = 0; event < eventsPerTick / spansPerTick; ++event)
      traceEvent("Consumer made", {.attributes = {{"consumerId", id}, {"bytes", 1200}},
                                   .parentScope = span,
                                   .category = EventCategory::telemetry});
    endSpan(span, {.message = "done"});
  }
}

void measureTick(Inbox& inbox, int tick) {
  for (int person = 0; person < people; ++person)
    for (int stream = 0; stream < streamsEach; ++stream)
      inbox.put([id = streamId(person, stream),
                 sample = StreamSample{.t = tick * 2000,
                                       .bitrateKbps = 812.5 + tick % 97,
                                       .framesPerSecond = 29.97,
                                       .width = 1280,
                                       .height = 720,
                                       .roundTripMs = 12.25,
                                       .lossPercent = 0.1,
                                       .jitterMs = 3.5,
                                       .freezes = 1}](MeetingRecord& record) {
        record.sampled(id, sample, "VP8");
      });
}

struct Cost {
  double meeting = 0;    ///< percent of a core on the threads of the library
  double inspector = 0;  ///< and on the inspector's
  double kilobytes = 0;  ///< a second, to each page
};

Cost bare(int ticks) {
  const auto start = threadSeconds();
  for (int tick = 0; tick < ticks; ++tick) traceTick();
  return {.meeting = (threadSeconds() - start) / (ticks * secondsPerTick) * 100};
}

Cost inspected(int ticks, int pageCount) {
  Watched watched;
  enter(watched.inbox());
  std::vector<std::unique_ptr<Page>> pages;
  for (int i = 0; i < pageCount; ++i) pages.push_back(std::make_unique<Page>(watched.address()));
  const auto before = watched.settle();
  double meeting = 0;
  for (int tick = 0; tick < ticks; ++tick) {
    const auto start = threadSeconds();
    traceTick();
    measureTick(watched.inbox(), tick);
    meeting += threadSeconds() - start;
    watched.settle();
    // The samples of a tick are told when the next one begins, or a moment later.
    for (const auto& page : pages) page->await(tick);
  }
  const auto seconds = ticks * secondsPerTick;
  Cost cost{.meeting = meeting / seconds * 100,
            .inspector = (watched.settle() - before) / seconds * 100};
  if (!pages.empty()) cost.kilobytes = static_cast<double>(pages[0]->bytes()) / seconds / 1000;
  return cost;
}

void print(const char* what, const Cost& cost, const Cost& base) {
  std::printf("%-18s meeting's threads %6.3f %% (+%.3f)   inspector's %6.3f %%   %6.1f kB/s\n",
              what, cost.meeting, cost.meeting - base.meeting, cost.inspector, cost.kilobytes);
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
  print("no inspector", base, base);
  print("no page", inspected(ticks, 0), base);
  print("1 page", inspected(ticks, 1), base);
  print("8 pages", inspected(ticks, 8), base);
  return 0;
}

}  // namespace kestrova::bench

int main(int argc, char** argv) {
  return kestrova::bench::main(argc, argv);
}
