#pragma once

#include <boost/asio/awaitable.hpp>

namespace kestrova {

/// An asynchronous operation: a lazy coroutine that runs on the executor it is spawned on.
///
/// Await it from another coroutine, or hand it to `boost::asio::co_spawn` with any completion
/// token.
template <class T = void>
using Task = boost::asio::awaitable<T>;

}  // namespace kestrova
