#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

namespace kestrova::bench {

/// relay.mjs in a process of its own; ends with the object. It shows the service's certificate, so
/// there must be a service.
class Relay {
public:
  Relay();
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  const std::string& port() const { return _port; }
  std::string url() const { return "wss://localhost:" + _port + "/"; }

private:
  std::string _port;
  pid_t _process = -1;
  FILE* _output = nullptr;
};

}  // namespace kestrova::bench
