#include <kestrova/inspector/LoopThread.h>
#include <kestrova/platform/Escaped.h>

#include <pthread.h>

#include <utility>

namespace kestrova::inspector {

LoopThread::~LoopThread() {
  _loop->stop();
  join();
}

void LoopThread::start() {
  _thread = std::thread([loop = _loop] {
    pthread_setname_np(pthread_self(), "kestrova-inspec");
    run(*loop);
  });
}

void LoopThread::join() {
  if (_thread.joinable()) _thread.join();
}

void LoopThread::run(boost::asio::io_context& loop) {
  bool wasTold = false;
  for (;;) {
    try {
      loop.run();
      return;
    } catch (...) {
      // The same one may come with every line of a trace.
      if (!std::exchange(wasTold, true)) reportEscaped("the inspector, which goes on");
    }
  }
}

}  // namespace kestrova::inspector
