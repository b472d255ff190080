#include <kestrova/platform/Farewells.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/session/MeetingOver.h>

#include <utility>

namespace kestrova {

std::shared_ptr<void> MeetingOver::goodbye() {
  {
    std::scoped_lock held(_lock);
    ++_goodbyes;
  }
  auto end = [self = shared_from_this()](void*) { self->said(); };
  // The process's exit waits for it as well, whoever else does.
  auto farewell = Farewells::begin();
  auto* const any = farewell.get();
  return {any, [end, farewell = std::move(farewell)](void* token) mutable {
            end(token);
            farewell.reset();
          }};
}

void MeetingOver::decide(MeetingEnd end) {
  auto hold = goodbye();
  std::unique_lock held(_lock);
  if (_end) return;
  if (end.isFailure()) {
    if (end.kind == MeetingEnd::Kind::joinFailed) end.error = _error;
    end.cause = end.error && !end.error->cause().empty() ? end.error->cause() : _cause;
  }
  _end = std::move(end);
  _unheard = std::move(hold);
}

void MeetingOver::heard() {
  std::shared_ptr<void> hold;  // goes outside the lock, as it may tell
  std::scoped_lock held(_lock);
  hold.swap(_unheard);
}

void MeetingOver::noteError(KestrovaError error) {
  std::scoped_lock held(_lock);
  _error = std::move(error);
}

void MeetingOver::noteCause(std::string cause) {
  std::scoped_lock held(_lock);
  _cause = std::move(cause);
}

void MeetingOver::keepLoopRunning() {
  auto work = MainQueue::shared().work();
  std::scoped_lock held(_lock);
  _loopWork.swap(work);
}

void MeetingOver::releaseLoop() {
  std::shared_ptr<void> work;  // goes outside the lock
  std::scoped_lock held(_lock);
  work.swap(_loopWork);
}

void MeetingOver::said() {
  std::unique_lock held(_lock);
  --_goodbyes;
  tell(std::move(held));
}

void MeetingOver::tell(std::unique_lock<std::mutex> held) {
  if (!_end || _goodbyes > 0 || _told) return;
  const auto end = *_end;
  // Those who wait may throw away what the readers are about to let go of, so they come last.
  while (!_readers.empty()) {
    const auto readers = std::exchange(_readers, {});
    held.unlock();
    for (const auto& reader : readers) reader(end);
    held.lock();
  }
  _told = true;
  auto work = std::exchange(_loopWork, nullptr);
  held.unlock();
  work.reset();
  _changed.notify_all();
}

std::optional<MeetingEnd> MeetingOver::told() const {
  std::scoped_lock held(_lock);
  return _told ? _end : std::nullopt;
}

std::optional<MeetingEnd> MeetingOver::wait(std::optional<std::chrono::milliseconds> atMost) const {
  std::unique_lock held(_lock);
  const auto isOver = [this] { return _told; };
  if (atMost)
    _changed.wait_for(held, *atMost, isOver);
  else
    _changed.wait(held, isOver);
  return _told ? _end : std::nullopt;
}

void MeetingOver::whenTold(Reader reader) {
  std::optional<MeetingEnd> end;
  {
    std::scoped_lock held(_lock);
    if (_told)
      end = _end;
    else
      _readers.push_back(std::move(reader));
  }
  if (end) reader(*end);
}

}  // namespace kestrova
