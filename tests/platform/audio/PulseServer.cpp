#include "PulseServer.h"

#include <kestrova/platform/linux/audio/PulseConnection.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <sstream>
#include <vector>

namespace kestrova {
namespace {

PulseConnection::Clock::time_point soon() {
  return PulseConnection::Clock::now() + std::chrono::seconds(10);
}

void ask(const std::function<pa_operation*(pa_context*)>& question) {
  PulseConnection connection;
  ASSERT_TRUE(connection.openUntil(soon()));
  ASSERT_TRUE(connection.await(question(connection.context()), soon()));
}

}  // namespace

PulseServer::PulseServer() {
  std::array<char, 32> name{"/tmp/kestrova-audio-XXXXXX"};
  _folder = ::mkdtemp(name.data());
  for (const auto* variable : {"HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "PULSE_RUNTIME_PATH"})
    ::setenv(variable, _folder.c_str(), 1);
  ::setenv("PULSE_SERVER", ("unix:" + socketPath()).c_str(), 1);
  ::setenv("LC_ALL", "C", 1);
  for (const auto* variable : {"DISPLAY", "DBUS_SESSION_BUS_ADDRESS"}) ::unsetenv(variable);
}

PulseServer::~PulseServer() {
  kill();
  std::filesystem::remove_all(_folder);
}

void PulseServer::start() {
  const auto protocol = "module-native-protocol-unix auth-anonymous=1 socket=" + socketPath();
  std::istringstream options(
      "pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --disable-shm=yes "
      "--realtime=no --high-priority=no --log-target=stderr --log-level=info -L");
  std::vector<std::string> words{std::istream_iterator<std::string>(options), {}};
  words.push_back(protocol);
  std::vector<char*> line;
  for (auto& word : words) line.push_back(word.data());
  line.push_back(nullptr);
  std::array<int, 2> log{};
  ASSERT_EQ(::pipe2(log.data(), O_CLOEXEC), 0);
  _process = ::fork();
  if (_process == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(log[1], STDERR_FILENO);
    ::execvp(line[0], line.data());
    ::_exit(127);
  }
  ::close(log[1]);
  std::promise<bool> started;
  auto isStarted = started.get_future();
  _log = std::thread([from = log[0], started = std::move(started)]() mutable {
    std::array<char, 1024> text{};
    bool isTold = false;
    auto* file = ::fdopen(from, "r");
    while (std::fgets(text.data(), text.size(), file))
      if (!isTold && std::string(text.data()).find("startup complete") != std::string::npos)
        started.set_value(isTold = true);
    if (!isTold) started.set_value(false);
    std::fclose(file);
  });
  ASSERT_TRUE(isStarted.get()) << "no pulseaudio to be run";
}

void PulseServer::kill() {
  if (_process > 0) {
    signal(SIGKILL);
    ::waitpid(_process, nullptr, 0);
    _process = -1;
  }
  if (_log.joinable()) _log.join();
}

std::uint32_t PulseServer::load(const std::string& module, const std::string& arguments) {
  std::uint32_t number = PA_INVALID_INDEX;
  ask([&](pa_context* context) {
    const auto loaded = [](pa_context*, std::uint32_t index, void* out) {
      *static_cast<std::uint32_t*>(out) = index;
    };
    return pa_context_load_module(context, module.c_str(), arguments.c_str(), loaded, &number);
  });
  EXPECT_NE(number, PA_INVALID_INDEX) << module << ' ' << arguments;
  return number;
}

void PulseServer::unload(std::uint32_t module) {
  ask([&](pa_context* context) {
    return pa_context_unload_module(context, module, nullptr, nullptr);
  });
}

std::uint32_t PulseServer::loadSink(const std::string& name, int channels,
                                    const std::string& properties) {
  return load("module-null-sink",
              "sink_name=" + name + " rate=48000 norewinds=1 channels=" + std::to_string(channels) +
                  " sink_properties=\"" + properties + '"');
}

std::uint32_t PulseServer::loadTone(const std::string& name, int hz,
                                    const std::string& properties) {
  // Another one each time: what a source hears stays when the source is unloaded.
  const auto air = name + "_air" + std::to_string(++_airs);
  loadSink(air, 1);
  load("module-sine", "sink=" + air + " frequency=" + std::to_string(hz));
  return load("module-remap-source", "source_name=" + name + " master=" + air +
                                         ".monitor source_properties=\"" + properties + '"');
}

std::uint32_t PulseServer::loadMicrophone(const std::string& name, const std::string& sink) {
  return load("module-remap-source", "source_name=" + name + " master=" + sink +
                                         ".monitor source_properties=device.description=The-" +
                                         name);
}

void PulseServer::makeDefaultSource(const std::string& name) {
  ask([&](pa_context* context) {
    return pa_context_set_default_source(context, name.c_str(), nullptr, nullptr);
  });
}

void PulseServer::makeDefaultSink(const std::string& name) {
  ask([&](pa_context* context) {
    return pa_context_set_default_sink(context, name.c_str(), nullptr, nullptr);
  });
}

void PulseServer::pauseSource(const std::string& name, bool pause) {
  ask([&](pa_context* context) {
    return pa_context_suspend_source_by_name(context, name.c_str(), pause, nullptr, nullptr);
  });
}

}  // namespace kestrova
