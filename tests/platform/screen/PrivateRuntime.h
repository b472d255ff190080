#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

namespace kestrova::test {

/// A runtime directory of the test's own, for as long as it lives.
class PrivateRuntime {
public:
  PrivateRuntime() {
    char name[] = "/tmp/kestrova-test.XXXXXX";
    path = ::mkdtemp(name);
    if (const char* before = std::getenv("XDG_RUNTIME_DIR")) _before = before;
    ::setenv("XDG_RUNTIME_DIR", path.c_str(), 1);
  }
  ~PrivateRuntime() {
    if (_before)
      ::setenv("XDG_RUNTIME_DIR", _before->c_str(), 1);
    else
      ::unsetenv("XDG_RUNTIME_DIR");
    std::filesystem::remove_all(path);
  }
  PrivateRuntime(const PrivateRuntime&) = delete;
  PrivateRuntime& operator=(const PrivateRuntime&) = delete;

  std::string path;

private:
  std::optional<std::string> _before;
};

/// Something that another thread brings, waited for without looking at the clock.
constexpr int patienceSeconds = 60;

}  // namespace kestrova::test
