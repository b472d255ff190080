#pragma once

#include <kestrova/kestrova.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>

/// Runs the loop that the main queue has adopted until the meeting is over, or Ctrl-C lets go of
/// it. \returns the exit code of the program
inline int stay(boost::asio::io_context& loop, std::shared_ptr<kestrova::Meeting> meeting) {
  kestrova::MeetingEnd end;
  boost::asio::signal_set signals(loop, SIGINT, SIGTERM);
  auto over = meeting->untilOver();
  boost::asio::co_spawn(loop, std::move(over),
                        [&](const std::exception_ptr&, kestrova::MeetingEnd told) {
                          end = std::move(told);
                          signals.cancel();  // the loop has nothing more to wait for
                        });
  // Leaves in every state, also in the middle of a join.
  signals.async_wait([&](const auto& error, int) {
    if (!error) meeting.reset();
  });
  meeting->join();
  loop.run();
  if (end.isFailure()) std::fprintf(stderr, "%s\n", text(end).c_str());
  return end.isFailure() ? 1 : 0;
}
