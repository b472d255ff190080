#include <kestrova/platform/Await.h>
#include <kestrova/platform/linux/http/CurlLoop.h>
#include <kestrova/platform/linux/http/CurlSession.h>

#include <utility>

namespace kestrova {
namespace {

/// Knows nothing of the session, which may be gone before the task is awaited.
Task<URLResponse> fetch(std::shared_ptr<CurlLoop> loop, std::uint64_t owner, URLRequest request) {
  auto begin = [loop = std::move(loop), owner,
                request = std::move(request)](Completion<URLOutcome> done) mutable {
    loop->start(std::make_unique<CurlTransfer>(owner, std::move(request), std::move(done)));
  };
  auto outcome = co_await awaitCallback<URLOutcome>(std::move(begin));
  if (auto* failure = std::get_if<URLError>(&outcome)) throw *failure;
  co_return std::get<URLResponse>(std::move(outcome));
}

class CurlSession final : public URLSession {
public:
  CurlSession() : _loop(CurlLoop::shared()), _owner(CurlLoop::newOwner()) {}
  ~CurlSession() override { _loop->cancel(_owner); }

  Task<URLResponse> data(URLRequest request) override {
    return fetch(_loop, _owner, std::move(request));
  }

private:
  const std::shared_ptr<CurlLoop> _loop;
  const std::uint64_t _owner;
};

}  // namespace

std::shared_ptr<URLSession> makeURLSession() {
  return std::make_shared<CurlSession>();
}

}  // namespace kestrova
