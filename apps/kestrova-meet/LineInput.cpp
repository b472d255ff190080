#include "LineInput.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read_until.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace kestrova::meet {
namespace {

/// Standard input as a description of its own where that can be had, for reading without waiting is
/// a property of the description, which others share. A file is read from where it stands.
int openInput() {
  struct stat about {};
  const bool known = fstat(STDIN_FILENO, &about) == 0;
  int descriptor = -1;
  if (known && (S_ISFIFO(about.st_mode) || S_ISCHR(about.st_mode)))
    descriptor = ::open("/proc/self/fd/0", O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (descriptor < 0) descriptor = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  // Closed: as if it were empty.
  if (descriptor < 0) descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  return descriptor;
}

}  // namespace

LineInput::LineInput(boost::asio::io_context& loop) : _input(loop, openInput()) {}

void LineInput::next(Handler handler) {
  _handler = std::move(handler);
  boost::asio::async_read_until(_input, boost::asio::dynamic_buffer(_buffer, mostLineBytes), '\n',
                                [this](const boost::system::error_code& error, std::size_t bytes) {
                                  if (error == boost::asio::error::operation_aborted) return;
                                  if (!error) return take(bytes, false);
                                  take(_buffer.size(), error != boost::asio::error::not_found);
                                });
}

/// \param ended nothing follows the buffer's content
void LineInput::take(std::size_t bytes, bool ended) {
  std::optional<std::string> line;
  if (bytes > 0 || !ended) line = _buffer.substr(0, bytes);
  _buffer.erase(0, bytes);
  while (line && (line->ends_with('\n') || line->ends_with('\r'))) line->pop_back();
  std::exchange(_handler, nullptr)(std::move(line));
}

}  // namespace kestrova::meet
