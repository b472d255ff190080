#include "PrivateBus.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kestrova {
namespace {

constexpr const char* mock = "org.freedesktop.DBus.Mock";
constexpr const char* modem = "/org/freedesktop/ModemManager1/Modem/0";
constexpr std::uint64_t patienceUs = 30'000'000;

constexpr const char* configuration = R"(<!DOCTYPE busconfig PUBLIC
  "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/>
<allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>)";

struct Answer {
  ~Answer() { sd_bus_message_unref(message); }
  sd_bus_message* message = nullptr;
};

}  // namespace

// ---- Child -------------------------------------------------------------------------------------

void Child::start(std::vector<std::string> words) {
  kill();
  std::vector<char*> line;
  for (auto& word : words) line.push_back(word.data());
  line.push_back(nullptr);
  _process = ::fork();
  if (_process != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::execvp(line[0], line.data());
  ::_exit(127);
}

void Child::kill() {
  if (_process <= 0) return;
  ::kill(_process, SIGKILL);
  ::waitpid(_process, nullptr, 0);
  _process = -1;
}

// ---- The bus -----------------------------------------------------------------------------------

PrivateBus::PrivateBus() {
  std::array<char, 32> name{"/tmp/kestrova-calls-XXXXXX"};
  _folder = ::mkdtemp(name.data());
  std::ofstream(_folder + "/bus.conf") << configuration;
  const auto address = "unix:path=" + _folder + "/bus";
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  kill();
  std::filesystem::remove_all(_folder);
}

void PrivateBus::start() {
  _daemon.start({"dbus-daemon", "--config-file=" + _folder + "/bus.conf", "--nofork", "--nopidfile",
                 "--nosyslog", "--address=unix:path=" + _folder + "/bus"});
  sd_bus* bus = nullptr;
  ASSERT_GE(sd_bus_new(&bus), 0);
  _connection.reset(bus);
  sd_bus_set_address(bus, std::getenv("DBUS_SYSTEM_BUS_ADDRESS"));
  sd_bus_set_bus_client(bus, true);
  sd_bus_set_watch_bind(bus, true);
  sd_bus_set_method_call_timeout(bus, patienceUs);
  ASSERT_GE(sd_bus_start(bus), 0);
  EXPECT_FALSE(hasOwner("nobody.here"));
}

void PrivateBus::kill() {
  _daemon.kill();
  _connection.reset();
  std::filesystem::remove(_folder + "/bus");
}

bool PrivateBus::hasOwner(const std::string& name) const {
  Answer answer;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int has = 0;
  const int asked = sd_bus_call_method(_connection.get(), "org.freedesktop.DBus",
                                       "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                       "NameHasOwner", &error, &answer.message, "s", name.c_str());
  EXPECT_GE(asked, 0) << "no dbus-daemon to be run";
  if (asked >= 0) sd_bus_message_read(answer.message, "b", &has);
  sd_bus_error_free(&error);
  return has != 0;
}

void PrivateBus::awaitOwner(const std::string& name, bool there) const {
  sd_bus_slot* slot = nullptr;
  // It wakes the wait below; whose name it was is looked up each time.
  sd_bus_match_signal(
      _connection.get(), &slot, "org.freedesktop.DBus", nullptr, "org.freedesktop.DBus",
      "NameOwnerChanged", [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr);
  while (hasOwner(name) != there) {
    int done = 0;
    while ((done = sd_bus_process(_connection.get(), nullptr)) > 0) {
    }
    ASSERT_GE(done, 0);
    if (hasOwner(name) == there) break;
    ASSERT_GT(sd_bus_wait(_connection.get(), patienceUs), 0) << name;
  }
  sd_bus_slot_unref(slot);
}

std::vector<std::string> PrivateBus::peers() const {
  Answer answer;
  std::vector<std::string> peers;
  EXPECT_GE(sd_bus_call_method(_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "ListNames", nullptr, &answer.message, ""),
            0);
  const char* peer = nullptr;
  sd_bus_message_enter_container(answer.message, 'a', "s");
  while (sd_bus_message_read(answer.message, "s", &peer) > 0)
    if (*peer == ':') peers.emplace_back(peer);
  return peers;
}

// ---- ModemManager ------------------------------------------------------------------------------

void MockModemManager::start() {
  _program.start({"/usr/bin/python3", "-m", "dbusmock", "--logfile", "/dev/null", "--session", name,
                  "/org/freedesktop/ModemManager1", name});
  _bus.awaitOwner(name, true);
  EXPECT_GE(sd_bus_call_method(_bus.connection(), name, "/org/freedesktop/ModemManager1", mock,
                               "AddObject", nullptr, nullptr, "ssa{sv}a(ssss)", modem, voice, 0, 0),
            0)
      << "python3-dbusmock doesn't answer";
}

void MockModemManager::kill() {
  _program.kill();
  _bus.awaitOwner(name, false);
}

void MockModemManager::makeCall(const std::string& path, std::int32_t direction,
                                std::int32_t state) {
  EXPECT_GE(sd_bus_call_method(_bus.connection(), name, "/org/freedesktop/ModemManager1", mock,
                               "AddObject", nullptr, nullptr, "ssa{sv}a(ssss)", path.c_str(), call,
                               3, "State", "i", state, "Direction", "i", direction, "Number", "s",
                               "+15550100", 0),
            0);
}

void MockModemManager::makeStrangeCall(const std::string& path) {
  EXPECT_GE(sd_bus_call_method(_bus.connection(), name, "/org/freedesktop/ModemManager1", mock,
                               "AddObject", nullptr, nullptr, "ssa{sv}a(ssss)", path.c_str(), call,
                               3, "State", "s", "ringing", "Direction", "d", 2.0, "Number", "ai", 2,
                               1, 2, 0),
            0);
}

void MockModemManager::announce(const char* member, const std::string& path) {
  EXPECT_GE(sd_bus_call_method(_bus.connection(), name, modem, mock, "EmitSignal", nullptr, nullptr,
                               "sssav", voice, member, "o", 1, "o", path.c_str()),
            0);
}

void MockModemManager::addCall(const std::string& path, std::int32_t direction,
                               std::int32_t state) {
  makeCall(path, direction, state);
  announce("CallAdded", path);
}

void MockModemManager::deleteCall(const std::string& path) {
  announce("CallDeleted", path);
}

void MockModemManager::changeState(const std::string& path, std::int32_t old, std::int32_t now) {
  EXPECT_GE(sd_bus_call_method(_bus.connection(), name, path.c_str(), mock, "UpdateProperties",
                               nullptr, nullptr, "sa{sv}", call, 1, "State", "i", now),
            0);
  EXPECT_GE(sd_bus_call_method(_bus.connection(), name, path.c_str(), mock, "EmitSignal", nullptr,
                               nullptr, "sssav", call, "StateChanged", "iiu", 3, "i", old, "i", now,
                               "u", 0u),
            0);
}

void MockModemManager::emitText(const std::string& path, const char* interface, const char* member,
                                const char* text) {
  EXPECT_GE(sd_bus_call_method(_bus.connection(), name, path.c_str(), mock, "EmitSignal", nullptr,
                               nullptr, "sssav", interface, member, "s", 1, "s", text),
            0);
}

}  // namespace kestrova
