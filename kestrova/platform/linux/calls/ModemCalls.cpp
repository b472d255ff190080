#include <kestrova/platform/linux/calls/ModemCalls.h>

#include <string_view>
#include <utility>

namespace kestrova {
namespace {

constexpr const char* service = "org.freedesktop.ModemManager1";
constexpr const char* voice = "org.freedesktop.ModemManager1.Modem.Voice";
constexpr const char* callInterface = "org.freedesktop.ModemManager1.Call";
constexpr const char* properties = "org.freedesktop.DBus.Properties";
constexpr const char* busService = "org.freedesktop.DBus";

// MMCallState and MMCallDirection of ModemManager's interface.
enum State {
  dialing = 1,
  ringingOut = 2,
  ringingIn = 3,
  active = 4,
  held = 5,
  waitingCall = 6,
  terminated = 7
};
constexpr std::int32_t outgoing = 2;

/// No machine has as many; more is nonsense or worse.
constexpr std::size_t mostCalls = 64;
constexpr std::size_t mostStatesWaiting = 16;

bool isConnected(std::int32_t state) {
  return state == active || state == held;
}

/// A property that is an integer, at the message's present place; anything else is skipped.
std::optional<std::int32_t> readInteger(sd_bus_message& message) {
  char type = 0;
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(&message, &type, &contents) <= 0 || type != 'v') return std::nullopt;
  if (std::string_view(contents) != "i") {
    sd_bus_message_skip(&message, "v");
    return std::nullopt;
  }
  std::int32_t value = 0;
  if (sd_bus_message_read(&message, "v", "i", &value) < 0) return std::nullopt;
  return value;
}

struct CallProperties {
  std::optional<std::int32_t> state;
  std::optional<std::int32_t> direction;
};

CallProperties readProperties(sd_bus_message& answer) {
  CallProperties found;
  if (sd_bus_message_enter_container(&answer, 'a', "{sv}") <= 0) return found;
  while (sd_bus_message_enter_container(&answer, 'e', "sv") > 0) {
    const char* key = nullptr;
    if (sd_bus_message_read(&answer, "s", &key) < 0) return found;
    const std::string_view name(key);
    if (name == "State")
      found.state = readInteger(answer);
    else if (name == "Direction")
      found.direction = readInteger(answer);
    else if (sd_bus_message_skip(&answer, "v") < 0)
      return found;
    if (sd_bus_message_exit_container(&answer) < 0) return found;
  }
  return found;
}

std::optional<std::string> readPath(sd_bus_message* message) {
  const char* path = nullptr;
  if (sd_bus_message_read(message, "o", &path) < 0 || !path) return std::nullopt;
  return path;
}

}  // namespace

ModemCalls::ModemCalls(sd_bus& bus, Changed changed) : _bus(bus), _changed(std::move(changed)) {
  listen(voice, "CallAdded", [](sd_bus_message* message, void* of, sd_bus_error*) {
    auto& self = *static_cast<ModemCalls*>(of);
    if (const auto path = readPath(message); path && self.isFromOwner(message)) self.know(*path);
    return 0;
  });
  listen(voice, "CallDeleted", [](sd_bus_message* message, void* of, sd_bus_error*) {
    auto& self = *static_cast<ModemCalls*>(of);
    if (const auto path = readPath(message); path && self.isFromOwner(message))
      self.callDeleted(*path);
    return 0;
  });
  listen(callInterface, "StateChanged", [](sd_bus_message* message, void* of, sd_bus_error*) {
    auto& self = *static_cast<ModemCalls*>(of);
    std::int32_t old = 0, now = 0;
    const char* path = sd_bus_message_get_path(message);
    if (path && self.isFromOwner(message) && sd_bus_message_read(message, "ii", &old, &now) >= 0)
      self.stateChanged(path, old, now);
    return 0;
  });
  listenForOwner();
}

ModemCalls::~ModemCalls() {
  endAll();
}

void ModemCalls::listen(const char* interface, const char* member,
                        sd_bus_message_handler_t handler) {
  sd_bus_slot* slot = nullptr;
  if (sd_bus_match_signal_async(&_bus, &slot, service, nullptr, interface, member, handler, nullptr,
                                this) >= 0)
    _matches.emplace_back(slot);
}

void ModemCalls::listenForOwner() {
  const std::string rule = std::string("type='signal',sender='") + busService +
                           "',member='NameOwnerChanged',arg0='" + service + "'";
  sd_bus_slot* slot = nullptr;
  const auto changed = [](sd_bus_message* message, void* self, sd_bus_error*) {
    const char *name = nullptr, *old = nullptr, *now = nullptr;
    const char* sender = sd_bus_message_get_sender(message);
    if (sender && std::string_view(sender) == busService &&
        sd_bus_message_read(message, "sss", &name, &old, &now) >= 0)
      static_cast<ModemCalls*>(self)->ownerChanged(now);
    return 0;
  };
  if (sd_bus_add_match_async(&_bus, &slot, rule.c_str(), changed, nullptr, this) >= 0)
    _matches.emplace_back(slot);
  const auto told = [](sd_bus_message* answer, void* self, sd_bus_error*) {
    const char* owner = nullptr;
    if (!sd_bus_message_is_method_error(answer, nullptr) &&
        sd_bus_message_read(answer, "s", &owner) >= 0)
      static_cast<ModemCalls*>(self)->ownerChanged(owner);
    return 0;
  };
  if (sd_bus_call_method_async(&_bus, &slot, busService, "/org/freedesktop/DBus", busService,
                               "GetNameOwner", told, this, "s", service) >= 0)
    _ownerQuestion.reset(slot);
}

void ModemCalls::ownerChanged(const std::string& owner) {
  if (owner == _owner) return;
  endAll();
  _owner = owner;
}

/// Anybody on the bus can send us a signal, past what we have asked the bus for.
bool ModemCalls::isFromOwner(sd_bus_message* message) const {
  const char* sender = sd_bus_message_get_sender(message);
  return sender && !_owner.empty() && _owner == sender;
}

void ModemCalls::callDeleted(const std::string& path) {
  const auto found = _calls.find(path);
  if (found == _calls.end()) return;
  const auto call = std::move(found->second);
  _calls.erase(found);
  if (call->isTold && !call->told.hasEnded) tell(*call, call->told.hasConnected, true);
}

void ModemCalls::stateChanged(const std::string& path, std::int32_t old, std::int32_t now) {
  auto* call = know(path);
  if (!call) return;
  // One that was answered before anybody looked.
  if (!call->isTold && isConnected(old) && now == terminated) call->told.hasConnected = true;
  if (call->hasDirection)
    enter(*call, now);
  else if (call->waiting.size() < mostStatesWaiting)
    call->waiting.push_back(now);
}

void ModemCalls::endAll() {
  const auto calls = std::exchange(_calls, {});
  for (const auto& [path, call] : calls)
    if (call->isTold && !call->told.hasEnded) tell(*call, call->told.hasConnected, true);
}

/// The call of that path. A new one is asked for its direction first.
ModemCalls::Call* ModemCalls::know(const std::string& path) {
  const auto found = _calls.find(path);
  if (found != _calls.end()) return found->second.get();
  if (_calls.size() >= mostCalls) return nullptr;
  auto& call = _calls[path];
  call = std::make_unique<Call>(Call{.owner = this, .told = {.id = path}});
  ask(*call);
  return call.get();
}

void ModemCalls::ask(Call& call) {
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_method_call(&_bus, &made, service, call.told.id.c_str(), properties,
                                     "GetAll") < 0)
    return;
  const BusMessage question(made);
  // One that has gone meanwhile shall not be started for this.
  sd_bus_message_set_auto_start(made, false);
  if (sd_bus_message_append(made, "s", callInterface) < 0) return;
  sd_bus_slot* slot = nullptr;
  const auto handler = [](sd_bus_message* answer, void* of, sd_bus_error*) {
    auto& asked = *static_cast<Call*>(of);
    asked.owner->answered(asked, *answer);
    return 0;
  };
  if (sd_bus_call_async(&_bus, &slot, made, handler, &call, 0) >= 0) call.question.reset(slot);
}

void ModemCalls::answered(Call& call, sd_bus_message& answer) {
  CallProperties found;
  if (!sd_bus_message_is_method_error(&answer, nullptr)) found = readProperties(answer);
  call.hasDirection = true;
  call.told.isOutgoing = found.direction == outgoing;
  for (const auto state : std::exchange(call.waiting, {})) enter(call, state);
  if (found.state) enter(call, *found.state);
}

void ModemCalls::enter(Call& call, std::int32_t state) {
  if (call.told.hasEnded) return;
  switch (state) {
    case dialing:
    case ringingOut:
    case ringingIn:
    case waitingCall:
      return tell(call, call.told.hasConnected, false);
    case active:
    case held:
      return tell(call, true, false);
    case terminated:
      return tell(call, call.told.hasConnected, true);
    default:
      return;  // unknown, or a state that is none
  }
}

void ModemCalls::tell(Call& call, bool hasConnected, bool hasEnded) {
  if (call.isTold && call.told.hasConnected == hasConnected && call.told.hasEnded == hasEnded)
    return;
  call.isTold = true;
  call.told.hasConnected = hasConnected;
  call.told.hasEnded = hasEnded;
  _changed(call.told);
}

}  // namespace kestrova
