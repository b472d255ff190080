#pragma once

#include <kestrova/platform/Scheduler.h>

#include <boost/asio/any_io_executor.hpp>

#include <memory>

namespace kestrova {

/// The threads that a process's meetings share: a few for background work and one for the clock.
/// Made on first use; they live as long as the process.
struct Runtime {
  static boost::asio::any_io_executor background();
  /// Where sockets live: one thread that never runs application code.
  static boost::asio::any_io_executor network();
  static std::shared_ptr<Scheduler> scheduler();
};

}  // namespace kestrova
