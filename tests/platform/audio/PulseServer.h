#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <thread>

namespace kestrova {

/// A sound server of the test's own, in a folder that goes with it. From construction on, this
/// process knows no other. It has no device but those that are loaded.
class PulseServer {
public:
  PulseServer();
  ~PulseServer();
  PulseServer(const PulseServer&) = delete;
  PulseServer& operator=(const PulseServer&) = delete;

  /// Returns once it answers.
  void start();
  /// Kills it; it doesn't get to say goodbye.
  void kill();
  void signal(int number) const { ::kill(_process, number); }
  std::string socketPath() const { return _folder + "/native"; }

  /// The module's number. The sinks and sources of a module are there when it returns.
  std::uint32_t load(const std::string& module, const std::string& arguments);
  void unload(std::uint32_t module);
  /// \param properties of the device, such as "device.form_factor=headset"
  std::uint32_t loadSink(const std::string& name, int channels, const std::string& properties = {});
  /// A microphone that hears a tone.
  std::uint32_t loadTone(const std::string& name, int hz, const std::string& properties = {});
  /// A source without a sink, that hears what `sink` plays.
  std::uint32_t loadMicrophone(const std::string& name, const std::string& sink);
  void makeDefaultSource(const std::string& name);
  void makeDefaultSink(const std::string& name);
  void pauseSource(const std::string& name, bool pause = true);

private:
  std::string _folder;
  pid_t _process = -1;
  int _airs = 0;
  std::thread _log;
};

}  // namespace kestrova
