#include <kestrova/platform/Farewells.h>
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

void MeetingOver::come(MeetingEnd end) {
  std::unique_lock held(_lock);
  if (_end) return;
  _end = std::move(end);
  tell(std::move(held));
}

void MeetingOver::said() {
  std::unique_lock held(_lock);
  --_goodbyes;
  tell(std::move(held));
}

void MeetingOver::tell(std::unique_lock<std::mutex> held) {
  if (!isTold()) return;
  const auto end = *_end;
  const auto readers = std::exchange(_readers, {});
  held.unlock();
  _changed.notify_all();
  for (const auto& reader : readers) reader(end);
}

std::optional<MeetingEnd> MeetingOver::told() const {
  std::scoped_lock held(_lock);
  return isTold() ? _end : std::nullopt;
}

std::optional<MeetingEnd> MeetingOver::wait(std::optional<std::chrono::milliseconds> atMost) const {
  std::unique_lock held(_lock);
  const auto isOver = [this] { return isTold(); };
  if (atMost)
    _changed.wait_for(held, *atMost, isOver);
  else
    _changed.wait(held, isOver);
  return isTold() ? _end : std::nullopt;
}

void MeetingOver::whenTold(Reader reader) {
  std::optional<MeetingEnd> end;
  {
    std::scoped_lock held(_lock);
    if (isTold())
      end = _end;
    else
      _readers.push_back(std::move(reader));
  }
  if (end) reader(*end);
}

}  // namespace kestrova
