#pragma once

#include <kestrova/platform/CallObserver.h>

#include <boost/asio/any_io_executor.hpp>

#include <memory>

namespace kestrova {

/// Tells of ModemManager's calls, by the machine's D-Bus. Quiet where there is no bus, no modem or
/// no ModemManager, and there as soon as they are.
/// \param executor runs one piece of work at a time
std::shared_ptr<CXCallObserver> makeCallObserver(boost::asio::any_io_executor executor);

}  // namespace kestrova
