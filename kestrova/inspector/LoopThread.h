#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <memory>
#include <thread>

namespace kestrova::inspector {

/// The inspector's event loop, and the thread that runs it. What a handler throws, most likely for
/// want of memory, is told on the console once, and the loop goes on: the application shall not
/// end because somebody looks at it.
class LoopThread {
public:
  /// Stops the loop, and waits for the thread.
  ~LoopThread();

  const std::shared_ptr<boost::asio::io_context>& loop() const { return _loop; }
  /// Work can be put on the loop before; it runs from now on.
  void start();
  /// Waits until somebody has stopped the loop and its thread has ended.
  void join();

private:
  static void run(boost::asio::io_context& loop);

  const std::shared_ptr<boost::asio::io_context> _loop =
      std::make_shared<boost::asio::io_context>(1);
  const boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work{
      _loop->get_executor()};
  std::thread _thread;
};

}  // namespace kestrova::inspector
