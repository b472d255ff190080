// Request round trips a second of this client and of the reference client for Node, one after the
// other against one server. Arguments: the folder of this file, seconds for each measurement.
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/linux/socketio/SocketManager.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>

using namespace kestrova;
using Clock = std::chrono::steady_clock;

namespace {

struct Result {
  double rate = 0;          ///< requests a second
  double microseconds = 0;  ///< CPU time of the client a request
};

std::string lineOf(const std::string& command, FILE** open = nullptr) {
  FILE* pipe = popen(command.c_str(), "r");
  char line[512] = {};
  if (!pipe || !std::fgets(line, sizeof line, pipe)) {
    std::fprintf(stderr, "failed: %s\n", command.c_str());
    std::exit(1);
  }
  if (open)
    *open = pipe;
  else
    pclose(pipe);
  return line;
}

double cpuMicroseconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto micro = [](const timeval& time) { return time.tv_sec * 1e6 + time.tv_usec; };
  return micro(usage.ru_utime) + micro(usage.ru_stime);
}

class Load : public std::enable_shared_from_this<Load> {
public:
  Load(const std::string& url, double seconds) : _seconds(seconds) {
    SocketManagerConfig config;
    config.handleQueue = SerialQueue::make("bench");
    _manager = makeSocketManager(url, config, Runtime::network());
    _socket = _manager->defaultSocket();
  }

  Result run(int inFlight) {
    _socket->on(SocketClientEvent::connect,
                [load = weak_from_this(), inFlight](const SocketItems&) {
                  for (int i = 0; i < inFlight; ++i) load.lock()->request();
                });
    _socket->connect();
    const auto result = _result.get_future().get();
    _manager.reset();
    return result;
  }

private:
  static constexpr int warmUp = 1000;

  void request() {
    Dictionary data{{"n", _count}, {"kind", "video"}, {"paused", false}};
    data["ids"] = List{"a", "b", "c"};
    Dictionary envelope{{"method", "pauseConsumer"}, {"roomId", "room-1"}, {"request", true}};
    envelope["data"] = std::move(data);
    SocketItems items;
    items.emplace_back(Value(std::move(envelope)));
    _socket->emitWithAck(
        "request", std::move(items), std::chrono::seconds(20),
        [load = shared_from_this()](const SocketItems& answer) { load->answered(answer); });
  }

  void answered(const SocketItems& answer) {
    if (_done) return;
    const auto* body = dictionary(asDictionary(std::get<Value>(answer.at(0))), "data");
    if (!body || text(*body, "status") != "ok") std::abort();
    if (++_count == warmUp) {
      _start = Clock::now();
      _cpu = cpuMicroseconds();
    }
    if (_count <= warmUp) return request();
    const double elapsed = std::chrono::duration<double>(Clock::now() - _start).count();
    if (elapsed < _seconds) return request();
    _done = true;
    const double count = _count - warmUp;
    _result.set_value({count / elapsed, (cpuMicroseconds() - _cpu) / count});
  }

  std::shared_ptr<SocketManager> _manager;
  std::shared_ptr<SocketIOClient> _socket;
  std::promise<Result> _result;
  const double _seconds;
  Clock::time_point _start;
  double _cpu = 0;
  int _count = 0;
  bool _done = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <folder of server.mjs> [seconds]\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  const double seconds = argc > 2 ? std::atof(argv[2]) : 2;

  Platform platform;
  platform.background = Runtime::background();
  platform.scheduler = Runtime::scheduler();
  Platform::install(std::move(platform));

  // The shell gives way to the server, so that its number is the server's.
  FILE* server = nullptr;
  const auto process =
      std::atoi(lineOf("echo $$; exec node " + folder + "/server.mjs", &server).c_str());
  char port[32] = {};
  if (!std::fgets(port, sizeof port, server)) return 1;
  const std::string url = "http://127.0.0.1:" + std::to_string(std::atoi(port));

  std::printf("%9s %14s %14s %7s %12s %12s %7s\n", "in flight", "kestrova 1/s", "node 1/s", "ratio",
              "kestrova us", "node us", "ratio");
  for (const int inFlight : {1, 32}) {
    const auto ours = std::make_shared<Load>(url, seconds)->run(inFlight);
    const auto line = lineOf("node " + folder + "/client.mjs " + url + " " +
                             std::to_string(seconds) + " " + std::to_string(inFlight));
    const auto values = parseDictionary(line);
    const double rate = values.at("rate").to_number<double>();
    const double cpu = values.at("cpu").to_number<double>();
    std::printf("%9d %14.0f %14.0f %7.2f %12.1f %12.1f %7.2f\n", inFlight, ours.rate, rate,
                ours.rate / rate, ours.microseconds, cpu, cpu / ours.microseconds);
  }
  kill(static_cast<pid_t>(process), SIGTERM);
  pclose(server);
}
