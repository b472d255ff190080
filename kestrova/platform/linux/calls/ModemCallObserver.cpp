#include <kestrova/platform/linux/calls/ModemCallObserver.h>
#include <kestrova/platform/linux/calls/ModemCalls.h>

#include <boost/asio/post.hpp>

#include <mutex>
#include <utility>

namespace kestrova {
namespace {

/// What is called, and where. Outlives the observer as long as something is on its way.
class Addressee : public std::enable_shared_from_this<Addressee> {
public:
  explicit Addressee(const CXCallObserver& observer) : _observer(observer) {}

  /// \returns whether there is a delegate now
  bool set(std::weak_ptr<CXCallObserverDelegate> delegate, std::shared_ptr<Queue> queue) {
    std::scoped_lock held(_lock);
    _delegate = std::move(delegate);
    _queue = std::move(queue);
    ++_number;
    return !_delegate.expired();
  }

  void tell(const CXCall& call) {
    std::shared_ptr<Queue> queue;
    std::uint64_t number = 0;
    {
      std::scoped_lock held(_lock);
      queue = _queue;
      number = _number;
    }
    auto& target = queue ? *queue : MainQueue::shared();
    target.async([self = shared_from_this(), number, call] {
      std::shared_ptr<CXCallObserverDelegate> delegate;
      {
        std::scoped_lock held(self->_lock);
        if (self->_number == number) delegate = self->_delegate.lock();
      }
      if (delegate) delegate->callObserver(self->_observer, call);
    });
  }

private:
  const CXCallObserver& _observer;  // there while the delegate is set
  std::mutex _lock;
  std::weak_ptr<CXCallObserverDelegate> _delegate;  // under _lock
  std::shared_ptr<Queue> _queue;                    // under _lock
  std::uint64_t _number = 0;                        // of the delegate; under _lock
};

/// The bus and its calls. The executor's, but for the making.
struct Observation {
  std::shared_ptr<SystemBus> bus;
  std::unique_ptr<ModemCalls> calls;
};

class ModemCallObserver final : public CXCallObserver {
public:
  explicit ModemCallObserver(boost::asio::any_io_executor executor)
      : _executor(std::move(executor)), _addressee(std::make_shared<Addressee>(*this)) {}
  ~ModemCallObserver() override { setDelegate({}, nullptr); }

  void setDelegate(std::weak_ptr<CXCallObserverDelegate> delegate,
                   std::shared_ptr<Queue> queue) override {
    const bool isWanted = _addressee->set(std::move(delegate), std::move(queue));
    std::scoped_lock held(_lock);
    if (isWanted == (_observation != nullptr)) return;
    if (isWanted)
      begin();
    else
      end();
  }

private:
  void begin() {
    _observation = std::make_shared<Observation>();
    const std::weak_ptr weak = _observation;
    const auto opened = [weak, addressee = _addressee](sd_bus& bus) {
      if (const auto self = weak.lock())
        self->calls = std::make_unique<ModemCalls>(
            bus, [addressee](const CXCall& call) { addressee->tell(call); });
    };
    const auto lost = [weak] {
      if (const auto self = weak.lock()) self->calls.reset();
    };
    _observation->bus = SystemBus::make(_executor, {opened, lost});
    boost::asio::post(_executor, [held = _observation] { held->bus->open(); });
  }

  void end() {
    boost::asio::post(_executor, [held = std::exchange(_observation, nullptr)] {
      held->calls.reset();
      held->bus->close();
    });
  }

  const boost::asio::any_io_executor _executor;
  const std::shared_ptr<Addressee> _addressee;
  std::mutex _lock;
  std::shared_ptr<Observation> _observation;  // under _lock
};

}  // namespace

std::shared_ptr<CXCallObserver> makeCallObserver(boost::asio::any_io_executor executor) {
  return std::make_shared<ModemCallObserver>(std::move(executor));
}

}  // namespace kestrova
