#pragma once

#include <kestrova/platform/ScreenSharing.h>

#include <boost/asio/any_io_executor.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// What the exit codes of a program that sends the screen mean.
namespace broadcastExit {
inline constexpr int finished = 0;
inline constexpr int failed = 1;
inline constexpr int badArguments = 2;
inline constexpr int refused = 3;
}  // namespace broadcastExit

/// The program of that name: a path as it stands, else one beside this program, else one in PATH.
/// A place in which other users can put programs is passed over.
std::optional<std::string> findProgram(const std::string& name);

/// Starts a program that sends the screen. Its standard input is a pipe that nobody writes to: at
/// its end the program ends, so it doesn't outlive this process, however that goes. Whoever lets go
/// of it ends it, within two seconds.
/// \param ended is called once, on the network's thread, unless it was let go of
/// \throws std::system_error when it can't be started
std::unique_ptr<BroadcastProgram> startBroadcast(const std::string& path,
                                                 const std::vector<std::string>& arguments,
                                                 const boost::asio::any_io_executor& network,
                                                 std::function<void(const BroadcastEnd&)> ended);

}  // namespace kestrova
