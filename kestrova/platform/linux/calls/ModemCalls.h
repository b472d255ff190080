#pragma once

#include <kestrova/platform/CallObserver.h>
#include <kestrova/platform/linux/calls/SystemBus.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// The telephone calls of ModemManager, as long as one connection to the bus lasts: its objects of
/// the interface org.freedesktop.ModemManager1.Call. What it says is not trusted to make sense.
///
/// Belongs to the bus's executor.
class ModemCalls {
public:
  using Changed = std::function<void(const CXCall& call)>;

  ModemCalls(sd_bus& bus, Changed changed);
  /// Calls that go on have ended, as far as anybody can tell.
  ~ModemCalls();
  ModemCalls(const ModemCalls&) = delete;
  ModemCalls& operator=(const ModemCalls&) = delete;

private:
  struct Call {
    ModemCalls* owner;
    CXCall told;
    bool isTold = false;
    bool hasDirection = false;
    std::vector<std::int32_t> waiting{};  // states that came before the direction
    BusSlot question{};
  };

  void listen(const char* interface, const char* member, sd_bus_message_handler_t handler);
  void listenForOwner();
  void ownerChanged(const std::string& owner);
  bool isFromOwner(sd_bus_message* message) const;
  void callDeleted(const std::string& path);
  void stateChanged(const std::string& path, std::int32_t old, std::int32_t now);
  void endAll();
  Call* know(const std::string& path);
  void ask(Call& call);
  void answered(Call& call, sd_bus_message& answer);
  void enter(Call& call, std::int32_t state);
  void tell(Call& call, bool hasConnected, bool hasEnded);

  sd_bus& _bus;
  const Changed _changed;
  std::map<std::string, std::unique_ptr<Call>> _calls;  // by their paths
  std::vector<BusSlot> _matches;
  BusSlot _ownerQuestion;
  std::string _owner;  // who is ModemManager at present; empty: nobody
};

}  // namespace kestrova
