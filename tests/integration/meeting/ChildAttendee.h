#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace kestrova::test {

/// A person of the meeting "integration" in a process of its own, with camera and microphone.
/// The process ends with the object, and with the test program in any case.
class ChildAttendee {
public:
  static constexpr double toneHz = 880;

  /// Returns once it has joined; throws when it can't.
  ChildAttendee(const std::string& address, const std::string& token, const std::string& id);
  ~ChildAttendee();
  ChildAttendee(const ChildAttendee&) = delete;
  ChildAttendee& operator=(const ChildAttendee&) = delete;

  void kill();
  /// Has it return from `main` in the middle of the meeting. \returns its exit code
  int returnFromMain();

  /// What the process does, if it was started as one.
  static std::optional<int> mainOfChild(int argc, char** argv);

private:
  pid_t _process = -1;
  int _input = -1;
};

}  // namespace kestrova::test
