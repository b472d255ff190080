#include <kestrova/inspector/Inbox.h>
#include <kestrova/inspector/TraceRecord.h>

#include <boost/asio/post.hpp>

#include <utility>

namespace kestrova::inspector {
namespace {

// The record keeps no more of them.
constexpr std::size_t mostTraces = Ring<EventFacts>::mostEntries;
constexpr std::size_t mostTraceBytes = Ring<EventFacts>::mostBytes;

}  // namespace

Inbox::Inbox(std::shared_ptr<boost::asio::io_context> loop, Reader reader)
    : _loop(std::move(loop)), _reader(std::move(reader)) {}

void Inbox::put(Change change) {
  {
    std::scoped_lock held(_lock);
    _changes.push_back(std::move(change));
    if (_changes.size() > 1) return;
  }
  // What the loop throws away at its end must not keep the loop.
  boost::asio::post(*_loop, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->deliver();
  });
}

void Inbox::putTrace(Change change, std::size_t bytes) {
  {
    std::scoped_lock held(_lock);
    const bool isTooMuch = _traceBytes + bytes > mostTraceBytes && _traces > 0;
    if (isTooMuch || _traces >= mostTraces) {
      ++_leftOut;
      return;
    }
    ++_traces;
    _traceBytes += bytes;
  }
  put(std::move(change));
}

void Inbox::deliver() {
  std::vector<Change> changes;
  std::size_t leftOut = 0;
  {
    std::scoped_lock held(_lock);
    changes.swap(_changes);
    leftOut = std::exchange(_leftOut, 0);
    _traces = 0;
    _traceBytes = 0;
  }
  _reader(std::move(changes), leftOut);
}

}  // namespace kestrova::inspector
