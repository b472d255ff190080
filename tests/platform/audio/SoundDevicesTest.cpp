#include <kestrova/platform/linux/audio/SoundDevices.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrova {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Reason = AVAudioSessionRouteChangeReason;

TEST(SoundDevices, KnowsWhatKindOfMicrophoneItIs) {
  const struct {
    SourceTraits traits;
    std::string_view type;
  } rows[] = {
      {{.bus = "pci", .portKind = PA_DEVICE_PORT_TYPE_MIC, .portName = "analog-input-internal-mic"},
       "BuiltInMic"},
      {{.bus = "pci", .formFactor = "internal"}, "BuiltInMic"},
      {{.bus = "pci"}, "BuiltInMic"},
      {{.bus = "pci", .portKind = PA_DEVICE_PORT_TYPE_MIC, .portName = "analog-input-headset-mic"},
       "HeadsetMic"},
      {{.bus = "pci", .portKind = PA_DEVICE_PORT_TYPE_LINE, .portName = "analog-input-linein"},
       "LineIn"},
      {{.bus = "usb", .formFactor = "headset"}, "HeadsetMic"},
      {{.bus = "usb", .formFactor = "webcam"}, "USBAudio"},
      {{.bus = "usb"}, "USBAudio"},
      {{.portKind = PA_DEVICE_PORT_TYPE_HEADPHONES}, "Headphones"},
      {{.bus = "bluetooth", .formFactor = "headset", .profile = "headset-head-unit"},
       "BluetoothHFP"},
      {{.bus = "bluetooth", .profile = "bap-duplex"}, "BluetoothLE"},
      {{.bus = "firewire"}, "LineIn"},
      {{}, "Virtual"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(portTypeOf(row.traits), row.type)
        << row.traits.bus << ' ' << row.traits.formFactor << ' ' << row.traits.portName;
}

TEST(SoundDevices, ShowsOneBuiltInMicrophoneAndNoTwoOfOneName) {
  std::vector<SoundDevice> sources{{.name = "a", .description = "Mic", .portType = "BuiltInMic"},
                                   {.name = "b", .description = "Mic", .portType = "BuiltInMic"},
                                   {.name = "c", .description = "Mic", .portType = "USBAudio"}};
  makeDistinct(sources);
  EXPECT_THAT(inputsOf({.sources = sources}),
              ElementsAre(AVAudioSessionPortDescription{"Mic", "BuiltInMic", "a"},
                          AVAudioSessionPortDescription{"Mic (b)", "LineIn", "b"},
                          AVAudioSessionPortDescription{"Mic (c)", "USBAudio", "c"}));
}

SoundDevice device(const std::string& name, std::vector<std::string> ports = {}) {
  SoundDevice made{.name = name, .description = "The " + name, .activeEndpoint = name};
  for (const auto& port : ports) made.endpoints.push_back(name + '#' + port);
  if (ports.empty()) made.endpoints.push_back(name);
  if (!ports.empty()) made.activeEndpoint = made.endpoints.front();
  return made;
}

TEST(SoundDevices, TellsWhatWasInUseFromWhatWasNot) {
  const SoundDevices before{
      .sources = {device("desk"), device("cam")},
      .sinks = {device("card", {"headphones", "speaker"}), device("tv")},
      .defaultSource = "desk",
      .defaultSink = "card",
  };
  auto after = before;
  EXPECT_THAT(routeChanges(before, after, "", ""), IsEmpty());
  after.defaultSink = "tv";
  EXPECT_THAT(routeChanges(before, after, "", ""), ElementsAre(Reason::routeConfigurationChange));

  after = before;
  after.sinks.push_back(device("buds"));
  EXPECT_THAT(routeChanges(before, after, "", ""), ElementsAre(Reason::newDeviceAvailable));

  after = before;
  after.sinks.pop_back();
  EXPECT_THAT(routeChanges(before, after, "", ""), ElementsAre(Reason::routeConfigurationChange));
  EXPECT_THAT(routeChanges(before, after, "tv", ""), ElementsAre(Reason::oldDeviceUnavailable));

  // The plug is pulled out of a card that stays.
  after = before;
  after.sinks[0] = device("card", {"speaker"});
  EXPECT_THAT(routeChanges(before, after, "", ""), ElementsAre(Reason::oldDeviceUnavailable));
  EXPECT_THAT(routeChanges(before, after, "tv", ""), ElementsAre(Reason::routeConfigurationChange));
  EXPECT_THAT(routeChanges(after, before, "", ""), ElementsAre(Reason::newDeviceAvailable));

  after = before;
  after.sources.erase(after.sources.begin());
  for (const auto* source : {"", "desk", "The desk"})
    EXPECT_THAT(routeChanges(before, after, "", source), ElementsAre(Reason::oldDeviceUnavailable));
  EXPECT_THAT(routeChanges(before, after, "", "cam"),
              ElementsAre(Reason::routeConfigurationChange));

  // A headset that changes from music to talking.
  after.sources.push_back(device("headset"));
  EXPECT_THAT(routeChanges(before, after, "", "desk"),
              ElementsAre(Reason::oldDeviceUnavailable, Reason::newDeviceAvailable));
  EXPECT_THAT(routeChanges({}, {}, "", ""), IsEmpty());
}

}  // namespace
}  // namespace kestrova
