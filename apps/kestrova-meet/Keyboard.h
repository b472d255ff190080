#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <array>
#include <functional>
#include <memory>

namespace kestrova::meet {

/// Single keys from the terminal on standard input, without an echo.
///
/// The terminal gets its old mode back when this goes, when a signal ends the process, and while
/// the process is stopped. There may be one at a time.
class Keyboard {
public:
  using Handler = std::function<void(char key)>;
  /// Nothing when standard input is no terminal, or is in the hands of another job.
  /// \param handler called on `loop`
  static std::unique_ptr<Keyboard> open(boost::asio::io_context& loop, Handler handler);
  ~Keyboard();
  /// Lets the signals that end a process do so, after the terminal got its mode back.
  static void guard(std::initializer_list<int> signals);

private:
  Keyboard(boost::asio::io_context& loop, int descriptor, Handler handler);
  void read();

  boost::asio::posix::stream_descriptor _input;
  const Handler _handler;
  std::array<char, 64> _keys{};
};

}  // namespace kestrova::meet
