#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// A program of the test's own that ends with it.
class Child {
public:
  Child() = default;
  ~Child() { kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void start(std::vector<std::string> words);
  void kill();

private:
  pid_t _process = -1;
};

/// A D-Bus in a folder of its own, which is the machine's for this process, and somebody on it. It
/// isn't there before `start`.
class PrivateBus {
public:
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Returns once it answers.
  void start();
  /// It doesn't get to say goodbye.
  void kill();
  /// The test's own connection.
  sd_bus* connection() const { return _connection.get(); }
  bool hasOwner(const std::string& name) const;
  void awaitOwner(const std::string& name, bool there) const;
  /// Those who are on the bus, by their unique names.
  std::vector<std::string> peers() const;

private:
  struct FreeConnection {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  std::string _folder;
  Child _daemon;
  std::unique_ptr<sd_bus, FreeConnection> _connection;
};

/// ModemManager as far as telephone calls go, played by dbusmock.
class MockModemManager {
public:
  static constexpr const char* name = "org.freedesktop.ModemManager1";
  static constexpr const char* voice = "org.freedesktop.ModemManager1.Modem.Voice";
  static constexpr const char* call = "org.freedesktop.ModemManager1.Call";

  explicit MockModemManager(const PrivateBus& bus) : _bus(bus) {}
  void start();
  void kill();

  /// Makes the object, and says so. \param direction 1 incoming, 2 outgoing
  void addCall(const std::string& path, std::int32_t direction, std::int32_t state);
  /// The same without saying so.
  void makeCall(const std::string& path, std::int32_t direction, std::int32_t state);
  void makeStrangeCall(const std::string& path);
  void changeState(const std::string& path, std::int32_t old, std::int32_t now);
  void deleteCall(const std::string& path);
  /// A signal with one argument, which is a text.
  void emitText(const std::string& path, const char* interface, const char* member,
                const char* text);

  /// A signal of the modem's about a call.
  void announce(const char* member, const std::string& path);

private:
  const PrivateBus& _bus;
  Child _program;
};

}  // namespace kestrova
