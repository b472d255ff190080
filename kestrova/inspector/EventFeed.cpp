#include <kestrova/inspector/Clock.h>
#include <kestrova/inspector/EventFeed.h>
#include <kestrova/platform/Values.h>

#include <chrono>
#include <exception>
#include <string>
#include <utility>

namespace kestrova::inspector {
namespace {

// The streams of one tick come one after the other, within a fraction of this.
constexpr std::chrono::milliseconds gatheringTime{200};

}  // namespace

EventFeed::EventFeed(boost::asio::io_context& loop, PageServer::Options options,
                     std::string_view page)
    : _record(*this),
      _server(loop, options, page, [this] { return _record.snapshot(now()); }),
      _gathering(loop) {}

void EventFeed::take(std::vector<Inbox::Change> changes, std::size_t leftOut) {
  std::exception_ptr failure;
  for (const auto& change : changes) {
    try {
      change(_record);
    } catch (...) {  // what comes after it is true all the same
      failure = std::current_exception();
    }
  }
  if (leftOut > 0)
    _record.eventHappened({.t = now(),
                           .name = "The trace came too fast: lines were left out",
                           .category = "WARN",
                           .attributes = {{"count", std::to_string(leftOut)}}});
  if (_record.hasSamplesToTell()) tellSamplesSoon();
  if (failure) std::rethrow_exception(failure);
}

void EventFeed::changed(std::string_view event, const Dictionary& data) {
  _server.send(event, boost::json::serialize(data));
}

void EventFeed::tellSamplesSoon() {
  if (std::exchange(_isGathering, true)) return;
  _gathering.expires_after(gatheringTime);
  _gathering.async_wait([this](const boost::system::error_code& cancelled) {
    _isGathering = false;
    if (!cancelled) _record.tellSamples();
  });
}

}  // namespace kestrova::inspector
