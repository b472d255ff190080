#include <kestrova/platform/linux/audio/SoundDevices.h>

#include <algorithm>
#include <array>
#include <set>
#include <utility>

namespace kestrova {
namespace {

using Reason = AVAudioSessionRouteChangeReason;
constexpr auto kLongestAnswer = std::chrono::milliseconds(500);

std::string text(const char* maybe) {
  return maybe ? maybe : "";
}

const char* property(const pa_proplist* list, const char* key) {
  const char* value = pa_proplist_gets(list, key);
  return value ? value : "";
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

/// Name, description, and the ports that may be there, of a sink or a source.
template <class Info>
SoundDevice deviceOf(const Info& info) {
  SoundDevice device{.name = text(info.name), .description = text(info.description)};
  if (device.description.empty()) device.description = device.name;
  const auto endpoint = [&](const auto& port) { return device.name + '#' + text(port.name); };
  for (std::uint32_t i = 0; i < info.n_ports; ++i)
    if (info.ports[i]->available != PA_PORT_AVAILABLE_NO)
      device.endpoints.push_back(endpoint(*info.ports[i]));
  if (info.n_ports == 0) device.endpoints.push_back(device.name);
  device.activeEndpoint = info.active_port ? endpoint(*info.active_port) : device.name;
  return device;
}

bool isSpeaker(const pa_sink_info& info) {
  const std::string_view form = property(info.proplist, PA_PROP_DEVICE_FORM_FACTOR);
  if (form == "internal" || form == "speaker") return true;
  if (!form.empty()) return false;
  for (std::uint32_t i = 0; i < info.n_ports; ++i)
    if (info.ports[i]->type == PA_DEVICE_PORT_TYPE_SPEAKER) return true;
  const int unknown = PA_DEVICE_PORT_TYPE_UNKNOWN;
  const int kind = info.active_port ? static_cast<int>(info.active_port->type) : unknown;
  return std::string_view(property(info.proplist, PA_PROP_DEVICE_BUS)) == "pci" &&
         kind != PA_DEVICE_PORT_TYPE_HDMI && kind != PA_DEVICE_PORT_TYPE_TV;
}

void addSource(pa_context*, const pa_source_info* info, int end, void* out) {
  if (end || !info || info->monitor_of_sink != PA_INVALID_INDEX) return;
  auto device = deviceOf(*info);
  SourceTraits traits{.bus = property(info->proplist, PA_PROP_DEVICE_BUS),
                      .formFactor = property(info->proplist, PA_PROP_DEVICE_FORM_FACTOR),
                      .profile = property(info->proplist, "api.bluez5.profile")};
  if (const auto* port = info->active_port) {
    traits.portKind = static_cast<int>(port->type);
    traits.portName = port->name ? port->name : "";
  }
  device.portType = portTypeOf(traits);
  static_cast<SoundDevices*>(out)->sources.push_back(std::move(device));
}

void addSink(pa_context*, const pa_sink_info* info, int end, void* out) {
  if (end || !info) return;
  auto device = deviceOf(*info);
  device.isSpeaker = isSpeaker(*info);
  static_cast<SoundDevices*>(out)->sinks.push_back(std::move(device));
}

void noteDefaults(pa_context*, const pa_server_info* info, void* out) {
  if (!info) return;
  static_cast<SoundDevices*>(out)->defaultSource = text(info->default_source_name);
  static_cast<SoundDevices*>(out)->defaultSink = text(info->default_sink_name);
}

using Endpoints = std::set<std::string>;

Endpoints endpointsOf(const SoundDevices& devices) {
  Endpoints all;
  for (const auto* list : {&devices.sources, &devices.sinks})
    for (const auto& device : *list) all.insert(device.endpoints.begin(), device.endpoints.end());
  return all;
}

std::string endpointInUse(const std::vector<SoundDevice>& list, const std::string& name) {
  for (const auto& device : list)
    if (device.name == name || device.description == name) return device.activeEndpoint;
  return {};
}

}  // namespace

std::optional<SoundDevices> readDevices(PulseConnection& connection,
                                        PulseConnection::Clock::time_point until) {
  SoundDevices devices;
  auto* context = connection.context();
  // All three questions go out together, and are answered for one and the same moment.
  std::array operations{pa_context_get_server_info(context, noteDefaults, &devices),
                        pa_context_get_source_info_list(context, addSource, &devices),
                        pa_context_get_sink_info_list(context, addSink, &devices)};
  bool isWhole = true;
  for (auto* operation : operations) isWhole &= connection.await(operation, until);
  if (!isWhole) return std::nullopt;
  makeDistinct(devices.sources);
  return devices;
}

std::optional<SoundDevices> readDevices() {
  const auto until = PulseConnection::Clock::now() + kLongestAnswer;
  PulseConnection connection;
  if (!connection.openUntil(until)) return std::nullopt;
  return readDevices(connection, until);
}

std::string_view portTypeOf(const SourceTraits& traits) {
  const auto isForm = [&](std::string_view form) { return traits.formFactor == form; };
  const auto isPort = [&](pa_device_port_type kind) {
    return traits.portKind == static_cast<int>(kind);
  };
  if (traits.bus == "bluetooth" || isPort(PA_DEVICE_PORT_TYPE_BLUETOOTH))
    return contains(traits.profile, "bap") ? AVAudioSessionPortBluetoothLE
                                           : AVAudioSessionPortBluetoothHFP;
  if (isForm("headphone") || isPort(PA_DEVICE_PORT_TYPE_HEADPHONES))
    return AVAudioSessionPortHeadphones;
  if (isForm("headset") || isForm("hands-free") || isPort(PA_DEVICE_PORT_TYPE_HEADSET) ||
      isPort(PA_DEVICE_PORT_TYPE_HANDSFREE) || contains(traits.portName, "headset"))
    return AVAudioSessionPortHeadsetMic;
  if (isForm("internal") || contains(traits.portName, "internal"))
    return AVAudioSessionPortBuiltInMic;
  if (isPort(PA_DEVICE_PORT_TYPE_LINE)) return AVAudioSessionPortLineIn;
  if (traits.bus == "usb") return AVAudioSessionPortUSBAudio;
  // A card of the machine of which no more is known: the microphone is in it, or in its socket.
  if (traits.bus == "pci" || traits.bus == "isa") return AVAudioSessionPortBuiltInMic;
  return traits.bus.empty() ? AVAudioSessionPortVirtual : AVAudioSessionPortLineIn;
}

void makeDistinct(std::vector<SoundDevice>& sources) {
  bool hasBuiltIn = false;
  std::set<std::string> seen;
  for (auto& source : sources) {
    if (source.portType == AVAudioSessionPortBuiltInMic && std::exchange(hasBuiltIn, true))
      source.portType = AVAudioSessionPortLineIn;
    if (!seen.insert(source.description).second) source.description += " (" + source.name + ')';
  }
}

std::vector<AVAudioSessionPortDescription> inputsOf(const SoundDevices& devices) {
  std::vector<AVAudioSessionPortDescription> inputs;
  for (const auto& source : devices.sources)
    inputs.push_back({source.description, source.portType, source.name});
  return inputs;
}

std::optional<std::string> speakerOf(const SoundDevices& devices) {
  for (const auto& sink : devices.sinks)
    if (sink.isSpeaker) return sink.name;
  return std::nullopt;
}

std::optional<std::string> builtInOf(const SoundDevices& devices) {
  for (const auto& source : devices.sources)
    if (source.portType == AVAudioSessionPortBuiltInMic) return source.name;
  return std::nullopt;
}

std::vector<Reason> routeChanges(const SoundDevices& before, const SoundDevices& after,
                                 const std::string& sink, const std::string& source) {
  const auto old = endpointsOf(before);
  const auto now = endpointsOf(after);
  const auto isGone = [&](const std::string& endpoint) {
    return old.contains(endpoint) && !now.contains(endpoint);
  };
  std::vector<Reason> reasons;
  if (isGone(endpointInUse(before.sinks, sink.empty() ? before.defaultSink : sink)) ||
      isGone(endpointInUse(before.sources, source.empty() ? before.defaultSource : source)))
    reasons.push_back(Reason::oldDeviceUnavailable);
  if (!std::includes(old.begin(), old.end(), now.begin(), now.end()))
    reasons.push_back(Reason::newDeviceAvailable);
  if (reasons.empty() && before != after) reasons.push_back(Reason::routeConfigurationChange);
  return reasons;
}

}  // namespace kestrova
