#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/WebSocketTask.h>
#include <kestrova/platform/linux/websocket/WebSocket.h>

#include <boost/asio/any_io_executor.hpp>

#include <memory>
#include <string>

namespace kestrova {

/// A task on a `WebSocket` whose network work runs on `io`, one piece at a time. Nothing when `url`
/// is no URL of the scheme ws or wss.
///
/// \param options its times and headers hold; how long messages may be is the task's own matter.
/// The clock is the platform's when there is none.
std::shared_ptr<WebSocketTask> makeWebSocketTask(const std::string& url,
                                                 std::shared_ptr<SerialQueue> queue,
                                                 WebSocketTask::Events events,
                                                 boost::asio::any_io_executor io,
                                                 WebSocketOptions options = {});

}  // namespace kestrova
