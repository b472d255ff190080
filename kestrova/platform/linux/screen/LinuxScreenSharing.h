#pragma once

#include <kestrova/platform/ScreenSharing.h>

#include <boost/asio/any_io_executor.hpp>

#include <memory>

namespace kestrova {

/// \param network runs what waits for programs and notifications
std::shared_ptr<ScreenSharing> makeScreenSharing(boost::asio::any_io_executor network);

}  // namespace kestrova
