#pragma once

namespace boost::asio {
class any_io_executor;
template <class T, class Executor>
class awaitable;
}  // namespace boost::asio

namespace kestrova {

/// An asynchronous operation: a lazy coroutine that runs on the executor it is spawned on.
///
/// Await it from another coroutine, or hand it to `boost::asio::co_spawn` with any completion
/// token. This header only names it; whoever awaits or writes one includes Task.h or an Asio header
/// that has it.
template <class T = void>
using Task = boost::asio::awaitable<T, boost::asio::any_io_executor>;

}  // namespace kestrova
