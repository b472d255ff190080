#include <kestrova/platform/linux/http/CurlLoop.h>

#include <pthread.h>

#include <atomic>
#include <optional>
#include <utility>

namespace kestrova {
namespace {

// libcurl asks to be called in time for its own timers; this bounds the sleep beside them.
constexpr int longestSleepMs = 60 * 60 * 1000;
constexpr long idleConnections = 8;

}  // namespace

struct CurlLoop::State {
  State() : multi(curl_multi_init()) {
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, idleConnections);
  }
  ~State() { curl_multi_cleanup(multi); }

  CURLM* const multi;

  std::mutex lock;  // guards the fields below
  std::vector<std::unique_ptr<CurlTransfer>> incoming;
  std::vector<std::uint64_t> cancelled;
  bool stopping = false;

  std::unordered_map<CURL*, std::unique_ptr<CurlTransfer>> running;  // the thread's

  void begin(std::unique_ptr<CurlTransfer> transfer) {
    if (const auto trouble = transfer->prepare(); !trouble.empty()) return transfer->fail(trouble);
    auto* handle = transfer->handle();
    if (const auto code = curl_multi_add_handle(multi, handle); code != CURLM_OK)
      return transfer->fail(curl_multi_strerror(code));
    running.emplace(handle, std::move(transfer));
  }

  std::unique_ptr<CurlTransfer> take(CURL* handle) {
    auto node = running.extract(handle);
    if (node.empty()) return nullptr;
    curl_multi_remove_handle(multi, handle);
    return std::move(node.mapped());
  }

  /// Fails the transfers of `owner`, or all when there is none.
  void drop(std::optional<std::uint64_t> owner) {
    std::vector<CURL*> handles;
    for (const auto& [handle, transfer] : running)
      if (!owner || transfer->owner() == *owner) handles.push_back(handle);
    for (auto* handle : handles) take(handle)->fail("the session was released");
  }

  /// False when the loop is to end.
  bool takeOrders() {
    std::vector<std::unique_ptr<CurlTransfer>> fresh;
    std::vector<std::uint64_t> gone;
    bool end = false;
    {
      std::scoped_lock held(lock);
      fresh.swap(incoming);
      gone.swap(cancelled);
      end = stopping;
    }
    for (auto& transfer : fresh) begin(std::move(transfer));
    for (const auto owner : gone) drop(owner);
    if (end) drop(std::nullopt);
    return !end;
  }

  void report() {
    int left = 0;
    while (const auto* message = curl_multi_info_read(multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      const auto code = message->data.result;
      if (auto transfer = take(message->easy_handle)) transfer->finish(code);
    }
  }
};

std::shared_ptr<CurlLoop> CurlLoop::shared() {
  static std::mutex lock;
  static std::weak_ptr<CurlLoop> known;
  std::scoped_lock held(lock);
  auto loop = known.lock();
  if (!loop) known = loop = std::make_shared<CurlLoop>();
  return loop;
}

std::uint64_t CurlLoop::newOwner() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

CurlLoop::CurlLoop()
    : _state([] {
        static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
        (void)ready;
        return std::make_shared<State>();
      }()) {}

CurlLoop::~CurlLoop() {
  {
    std::scoped_lock held(_state->lock);
    _state->stopping = true;
  }
  curl_multi_wakeup(_state->multi);
  if (!_thread.joinable()) return;
  if (_thread.get_id() == std::this_thread::get_id())
    _thread.detach();
  else
    _thread.join();
}

void CurlLoop::start(std::unique_ptr<CurlTransfer> transfer) {
  {
    std::scoped_lock held(_state->lock);
    _state->incoming.push_back(std::move(transfer));
  }
  std::call_once(_started, [this] { _thread = std::thread(&CurlLoop::run, _state); });
  curl_multi_wakeup(_state->multi);
}

void CurlLoop::cancel(std::uint64_t owner) {
  {
    std::scoped_lock held(_state->lock);
    _state->cancelled.push_back(owner);
  }
  curl_multi_wakeup(_state->multi);
}

void CurlLoop::run(const std::shared_ptr<State>& state) {
  pthread_setname_np(pthread_self(), "kestrova-http");
  while (state->takeOrders()) {
    int active = 0;
    curl_multi_perform(state->multi, &active);
    state->report();
    curl_multi_poll(state->multi, nullptr, 0, longestSleepMs, nullptr);
  }
}

}  // namespace kestrova
