#pragma once

#include <kestrova/platform/URLSession.h>

#include <curl/curl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <variant>
#include <vector>

namespace kestrova {

using URLOutcome = std::variant<URLResponse, URLError>;

/// One request on its way. Made on any thread, then the loop's alone.
class CurlTransfer {
public:
  using Done = std::function<void(URLOutcome)>;

  CurlTransfer(std::uint64_t owner, URLRequest request, Done done);
  ~CurlTransfer();
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  std::uint64_t owner() const { return _owner; }
  CURL* handle() const { return _handle; }
  /// Readies the handle; the text says why it cannot be.
  std::string prepare();
  void finish(CURLcode code);
  void fail(const std::string& reason);

private:
  static std::size_t receive(char* data, std::size_t size, std::size_t count, void* self);
  std::string applyHeaders();
  void applyMethod();
  void applyTrust();
  std::string explain(CURLcode code) const;

  const std::uint64_t _owner;
  const URLRequest _request;
  const Done _done;
  CURL* _handle = nullptr;
  curl_slist* _headers = nullptr;
  URLResponse _response;
  bool _tooLong = false;
  char _trouble[CURL_ERROR_SIZE] = {};
};

/// The thread that all transfers run on. It sleeps in the kernel while nothing happens.
class CurlLoop {
public:
  /// The process's loop; made anew when the last user of the former one has gone.
  static std::shared_ptr<CurlLoop> shared();
  /// A number that no other session has or had.
  static std::uint64_t newOwner();

  CurlLoop();
  ~CurlLoop();
  CurlLoop(const CurlLoop&) = delete;
  CurlLoop& operator=(const CurlLoop&) = delete;

  /// Any thread.
  void start(std::unique_ptr<CurlTransfer> transfer);
  /// Fails every transfer of `owner`. Any thread.
  void cancel(std::uint64_t owner);

private:
  /// What the thread works on. It belongs to the thread and the loop together, so that the loop may
  /// be released on its own thread.
  struct State;
  static void run(const std::shared_ptr<State>& state);

  const std::shared_ptr<State> _state;
  std::once_flag _started;
  std::thread _thread;
};

}  // namespace kestrova
