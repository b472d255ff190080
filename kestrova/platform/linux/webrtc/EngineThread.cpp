#include <kestrova/platform/linux/webrtc/EngineThread.h>

#include <api/task_queue/task_queue_base.h>
#include <rtc_base/thread.h>

namespace kestrova {
namespace {

thread_local int deliveries = 0;

}  // namespace

EngineThread::EngineThread() : _thread([this] { loop(); }) {}

EngineThread::~EngineThread() {
  {
    std::scoped_lock held(_lock);
    _ending = true;
  }
  _wake.notify_one();
  _thread.join();
}

void EngineThread::post(Work work) {
  {
    std::scoped_lock held(_lock);
    _work.push_back(std::move(work));
  }
  _wake.notify_one();
}

void EngineThread::loop() {
  std::unique_lock held(_lock);
  for (;;) {
    _wake.wait(held, [this] { return _ending || !_work.empty(); });
    if (_work.empty()) return;
    Work work = std::move(_work.front());
    _work.pop_front();
    held.unlock();
    work();
    work = Work();
    held.lock();
  }
}

bool inEngineCallback() {
  return deliveries > 0 || rtc::Thread::Current() || webrtc::TaskQueueBase::Current();
}

EngineCallback::EngineCallback() {
  ++deliveries;
}
EngineCallback::~EngineCallback() {
  --deliveries;
}

}  // namespace kestrova
