#pragma once

#include <kestrova/platform/NotificationCenter.h>

#include <boost/asio/any_io_executor.hpp>

#include <memory>

namespace kestrova {

/// Notifications as datagrams on sockets in the group's folder, one for each observer. Those of
/// other users are not heeded.
std::shared_ptr<CrossProcessNotifications> makeNotifications(boost::asio::any_io_executor network);

}  // namespace kestrova
