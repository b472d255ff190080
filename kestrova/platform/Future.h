#pragma once

#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/Task.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <future>
#include <utility>

namespace kestrova {

/// Starts `task` on the library's background threads, for programs without coroutines of their own:
///
///     auto camera = asFuture(Kestrova::createCameraVideoTrack());
///     auto over = asFuture(meeting->untilOver());
///
/// What the task throws comes out of `get()`. Letting go of the future doesn't stop the task.
template <class T>
std::future<T> asFuture(Task<T> task) {
  return boost::asio::co_spawn(Runtime::background(), std::move(task), boost::asio::use_future);
}

}  // namespace kestrova
