#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova::meet {

/// Lines of standard input, be it a pipe, a file or a terminal. Each is read when it is asked for,
/// so that whoever writes faster than lines are taken waits.
class LineInput {
public:
  /// A line without its end, or nothing when there is no more.
  using Handler = std::function<void(std::optional<std::string>)>;
  /// A longer line is cut here.
  static constexpr std::size_t mostLineBytes = 1024 * 1024;

  explicit LineInput(boost::asio::io_context& loop);
  /// Asks for one line. Not before the one before has come.
  /// \param handler called on the loop, and never inside this call
  void next(Handler handler);

private:
  void take(std::size_t bytes, bool ended);

  boost::asio::posix::stream_descriptor _input;
  std::string _buffer;
  Handler _handler;
};

}  // namespace kestrova::meet
