#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSubDeliveries.h>

#include <mutex>
#include <utility>

namespace kestrova {

class PubSubDeliveries::Gap {
public:
  /// False when it has been told already.
  bool add(std::uint64_t count) {
    std::scoped_lock held(_lock);
    if (_told) return false;
    _count += count;
    return true;
  }
  std::uint64_t take() {
    std::scoped_lock held(_lock);
    _told = true;
    return _count;
  }

  bool isTold() const {
    std::scoped_lock held(_lock);
    return _told;
  }

private:
  mutable std::mutex _lock;
  std::uint64_t _count = 0;
  bool _told = false;
};

void PubSubDeliveries::deliver(const std::string& stream, std::size_t bytes, Work work) {
  if (!_gaps.empty()) _gaps.erase(stream);
  *_waiting += bytes;
  // Counts as waiting until it has run, or is thrown away with its loop.
  std::shared_ptr<void> place(nullptr, [waiting = _waiting, bytes](void*) { *waiting -= bytes; });
  MainQueue::shared().async(
      [work = std::move(work), place = std::move(place)]() mutable { work(); });
}

void PubSubDeliveries::lose(const std::string& stream, std::uint64_t count, TellGap tell) {
  const auto open = _gaps.find(stream);
  if (open != _gaps.end() && open->second->add(count)) return;
  auto fresh = std::make_shared<Gap>();
  fresh->add(count);
  std::erase_if(_gaps, [](const auto& each) { return each.second->isTold(); });
  _gaps[stream] = fresh;
  MainQueue::shared().async([fresh, tell = std::move(tell)] { tell(fresh->take()); });
}

}  // namespace kestrova
