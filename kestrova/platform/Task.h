#pragma once

#include <kestrova/platform/TaskFwd.h>

#include <boost/asio/awaitable.hpp>
