#include <kestrova/realtime/PubSubEndpointStore.h>
#include <kestrova/realtime/RealtimeTrace.h>

#include <boost/algorithm/string/trim.hpp>
#include <boost/url/parse.hpp>

#include <utility>

namespace kestrova {
namespace {

/// Never the whole of it: the query may be a secret.
std::string hostOf(const std::optional<std::string>& url) {
  if (!url) return "-";
  const auto parsed = boost::urls::parse_uri(*url);
  const std::string host = parsed ? std::string(parsed->host()) : "";
  return host.empty() ? "-" : host;
}

}  // namespace

std::optional<std::string> PubSubEndpointStore::pubSubUrl() const {
  std::scoped_lock held(_lock);
  return _pubSubUrl;
}

void PubSubEndpointStore::update(std::optional<std::string> pubSubUrl) {
  if (pubSubUrl) boost::algorithm::trim(*pubSubUrl);
  if (pubSubUrl && pubSubUrl->empty()) pubSubUrl.reset();
  {
    std::scoped_lock held(_lock);
    _pubSubUrl = pubSubUrl;
  }
  traceRealtime("Endpoint: update pubSubUrl",
                {{"hasUrl", pubSubUrl.has_value()}, {"host", [&] { return hostOf(pubSubUrl); }}});
}

void PubSubEndpointStore::clear() {
  {
    std::scoped_lock held(_lock);
    _pubSubUrl.reset();
  }
  traceRealtime("Endpoint: cleared");
}

void PubSubEndpointStore::awaitJoin() {
  std::scoped_lock held(_lock);
  ++_awaitedJoin;
  _awaitsJoin = true;
}

std::uint64_t PubSubEndpointStore::awaitedJoin() const {
  std::scoped_lock held(_lock);
  return _awaitedJoin;
}

void PubSubEndpointStore::joinAnswered(std::uint64_t awaited) {
  std::scoped_lock held(_lock);
  if (awaited == _awaitedJoin) _awaitsJoin = false;
}

bool PubSubEndpointStore::awaitsJoin() const {
  std::scoped_lock held(_lock);
  return _awaitsJoin;
}

}  // namespace kestrova
