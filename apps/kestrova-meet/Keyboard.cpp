#include "Keyboard.h"

#include <boost/asio/buffer.hpp>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace kestrova::meet {
namespace {

// Read by signal handlers: written before they are set up, and never afterwards.
termios oldMode;
termios keyMode;
volatile std::sig_atomic_t inKeyMode = 0;

void restore() {
  if (inKeyMode) tcsetattr(STDIN_FILENO, TCSANOW, &oldMode);
}

void endProcess(int signal) {
  restore();
  std::signal(signal, SIG_DFL);
  raise(signal);
}

void stopProcess(int) {
  restore();
  raise(SIGSTOP);
  // In the background again: the mode is the foreground job's.
  if (inKeyMode && tcgetpgrp(STDIN_FILENO) == getpgrp()) tcsetattr(STDIN_FILENO, TCSANOW, &keyMode);
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(signal, &action, nullptr);
}

}  // namespace

std::unique_ptr<Keyboard> Keyboard::open(boost::asio::io_context& loop, Handler handler) {
  if (!isatty(STDIN_FILENO) || tcgetpgrp(STDIN_FILENO) != getpgrp()) return nullptr;
  if (tcgetattr(STDIN_FILENO, &oldMode) != 0) return nullptr;
  // A description of its own: what is set on it doesn't reach the shell or standard output.
  const char* name = ttyname(STDIN_FILENO);
  const int descriptor = name ? ::open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1;
  if (descriptor < 0) return nullptr;
  return std::unique_ptr<Keyboard>(new Keyboard(loop, descriptor, std::move(handler)));
}

Keyboard::Keyboard(boost::asio::io_context& loop, int descriptor, Handler handler)
    : _input(loop, descriptor), _handler(std::move(handler)) {
  keyMode = oldMode;
  keyMode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  keyMode.c_cc[VMIN] = 1;
  keyMode.c_cc[VTIME] = 0;
  inKeyMode = 1;
  guard({SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS, SIGFPE});
  handle(SIGTSTP, stopProcess);
  tcsetattr(STDIN_FILENO, TCSANOW, &keyMode);
  read();
}

Keyboard::~Keyboard() {
  restore();
  inKeyMode = 0;
  std::signal(SIGTSTP, SIG_DFL);
}

void Keyboard::guard(std::initializer_list<int> signals) {
  for (const int signal : signals) handle(signal, endProcess);
}

void Keyboard::read() {
  _input.async_read_some(boost::asio::buffer(_keys),
                         [this](const boost::system::error_code& error, std::size_t count) {
                           // The terminal is gone; the meeting goes on.
                           if (error) return;
                           const auto keys = _keys;
                           for (std::size_t i = 0; i < count; ++i) _handler(keys[i]);
                           read();
                         });
}

}  // namespace kestrova::meet
