#include "Relay.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace kestrova::bench {

Relay::Relay() {
  const auto folder = std::filesystem::path(std::getenv("SSL_CERT_FILE")).parent_path();
  // The shell gives way to the relay, so that its number is the relay's.
  const auto command =
      "echo $$; exec " NODE_PROGRAM " " BENCH_FOLDER "/relay.mjs '" + folder.string() + "'";
  _output = ::popen(command.c_str(), "r");
  char process[32] = {};
  char port[32] = {};
  if (!_output || !std::fgets(process, sizeof process, _output) ||
      !std::fgets(port, sizeof port, _output))
    throw std::runtime_error("the relay did not start");
  _process = std::atoi(process);
  _port = std::to_string(std::atoi(port));
}

Relay::~Relay() {
  ::kill(_process, SIGTERM);
  ::pclose(_output);
}

}  // namespace kestrova::bench
