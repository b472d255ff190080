#include "ChildAttendee.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Attendee.h"
#include <csignal>
#include <iostream>
#include <stdexcept>

namespace kestrova::test {
namespace {

const std::string flag = "--attend";

}  // namespace

ChildAttendee::ChildAttendee(const std::string& address, const std::string& token,
                             const std::string& id) {
  int input[2];
  int output[2];
  if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
    throw std::runtime_error("no pipe");
  _process = ::fork();
  if (_process == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(input[0], STDIN_FILENO);
    ::dup2(output[1], STDOUT_FILENO);
    ::execl("/proc/self/exe", "attendee", flag.c_str(), address.c_str(), token.c_str(), id.c_str(),
            nullptr);
    ::_exit(127);
  }
  ::close(input[0]);
  ::close(output[1]);
  _input = input[1];
  char word = 0;
  const bool joined = ::read(output[0], &word, 1) == 1;
  ::close(output[0]);
  if (joined) return;
  kill();
  throw std::runtime_error("the other process did not join");
}

ChildAttendee::~ChildAttendee() {
  if (_process > 0) kill();
}

void ChildAttendee::kill() {
  ::kill(_process, SIGKILL);
  ::waitpid(_process, nullptr, 0);
  ::close(_input);
  _process = -1;
}

int ChildAttendee::returnFromMain() {
  ::close(_input);
  int status = 0;
  ::waitpid(_process, &status, 0);
  _process = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::optional<int> ChildAttendee::mainOfChild(int argc, char** argv) {
  if (argc != 5 || argv[1] != flag) return std::nullopt;
  Kestrova::setLogLevel(LogLevel::error);
  Kestrova::configureCapture({.camera = "pattern", .microphone = "tone", .toneHz = toneHz});
  const auto me = Attendee::join(argv[3], {.meetingId = "integration",
                                           .participantId = argv[4],
                                           .participantName = argv[4],
                                           .micEnabled = true,
                                           .webcamEnabled = true,
                                           .multiStream = false,
                                           .signalingBaseUrl = argv[2]});
  if (!me->sees("own audio") || !me->sees("own video")) return 1;
  std::cout << "+" << std::flush;
  char word = 0;
  while (::read(STDIN_FILENO, &word, 1) > 0) {
  }
  return 0;
}

}  // namespace kestrova::test
