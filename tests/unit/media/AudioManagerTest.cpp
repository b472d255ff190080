#include <kestrova/media/AudioManager.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

const AVAudioSessionPortDescription builtIn{"Internal Microphone", "BuiltInMic", "pci"};
const AVAudioSessionPortDescription wired{"Microphone", "HeadsetMic", "jack"};
const AVAudioSessionPortDescription wireless{"Buds", "BluetoothHFP", "bluez"};
const AVAudioSessionPortDescription desk{"Desk Mic", "USBAudio", "usb-1"};

constexpr const char* skipping =
    "Skipping microphone enumeration: the app's audio session category does not support input, "
    "and reconfiguring it would disturb playback. Configure a record-capable category before "
    "listing devices.";
constexpr const char* emptyList = "Error while fetching microphone list, no input devices found!";

class AudioManagerTest : public testing::Test {
protected:
  AudioManagerTest() { audio().inputs = {wired, wireless, builtIn, desk}; }

  ScriptedAudioSession& audio() { return *platform.audio; }
  Lines done() { return platform.audioJournal.only({"audio."}); }
  std::optional<std::string> change(AudioManager& manager, const std::string& device) {
    platform.audioJournal.clear();
    platform.traces.clear();
    return platform.run(manager.changeMic(device, std::nullopt));
  }

  TestPlatform platform;
};

TEST_F(AudioManagerTest, theSessionIsMadeReadyAndGivenBackOnce) {
  const auto manager = AudioManager::make(true);
  EXPECT_THAT(done(), ElementsAre("audio.category AVAudioSessionCategoryPlayAndRecord 111",
                                  "audio.active 1 0"));
  EXPECT_EQ(audio().currentMode, "AVAudioSessionModeDefault");
  EXPECT_FALSE(audio().watch.expired());
  platform.audioJournal.clear();
  manager->stopAudioSession();
  manager->stopAudioSession();
  EXPECT_THAT(done(), ElementsAre("audio.category AVAudioSessionCategorySoloAmbient 7",
                                  "audio.active 1 1"));
  EXPECT_EQ(audio().currentMode, "mode before");
  EXPECT_EQ(audio().currentPolicy, AVAudioSessionRouteSharingPolicy::longFormAudio);
  EXPECT_TRUE(audio().watch.expired());
}

TEST_F(AudioManagerTest, withoutAWishNothingIsTouched) {
  AudioManager::make(false)->stopAudioSession();
  EXPECT_THAT(done(), IsEmpty());
}

TEST_F(AudioManagerTest, failuresAreTracedAndNoMore) {
  audio().fails = "category";
  const auto manager = AudioManager::make(true);
  EXPECT_EQ(platform.traces.attribute("Audio session configuration failed", "error"),
            "not possible");
  EXPECT_FALSE(audio().isActive);
  manager->stopAudioSession();
  EXPECT_EQ(platform.traces.attribute("Failed to stop audio session.", "error"), "not possible");
  EXPECT_TRUE(audio().watch.expired()) << "the routes are watched on";
  // The lock was given back all the same.
  audio().fails.clear();
  AudioManager::make(true);
  EXPECT_TRUE(audio().isActive);
}

TEST_F(AudioManagerTest, theListIsMadeInEveryCategoryThatBearsIt) {
  const auto manager = AudioManager::make(false);
  const std::vector<AudioDevice> list{{"Speaker", "speaker"},
                                      {"Headphones", "wired"},
                                      {"Buds", "BluetoothHFP"},
                                      {"Desk Mic", "USBAudio"}};
  for (const auto category : {AVAudioSessionCategoryPlayAndRecord, AVAudioSessionCategoryRecord}) {
    audio().currentCategory = category;
    platform.audioJournal.clear();
    EXPECT_EQ(manager->getMics(), list);
    EXPECT_EQ(done(), (Lines{"audio.inputs " + std::string(category)}));
  }
  for (const auto category : {AVAudioSessionCategoryAmbient, AVAudioSessionCategorySoloAmbient}) {
    audio().currentCategory = category;
    platform.audioJournal.clear();
    EXPECT_EQ(manager->getMics(), list);
    EXPECT_EQ(done(), (Lines{"audio.category AVAudioSessionCategoryPlayAndRecord 0",
                             "audio.inputs AVAudioSessionCategoryPlayAndRecord",
                             "audio.category " + std::string(category) + " 7"}));
    EXPECT_EQ(audio().currentMode, "mode before");
    EXPECT_EQ(audio().currentPolicy, AVAudioSessionRouteSharingPolicy::longFormAudio);
  }
  EXPECT_EQ(platform.traces.attribute("Microphone List fetched successfully", "micList"),
            "[ Speaker, Headphones, Buds, Desk Mic ]");
  EXPECT_FALSE(platform.traces.has(emptyList));
}

TEST_F(AudioManagerTest, playbackIsNotDisturbedForAList) {
  audio().currentCategory = AVAudioSessionCategoryPlayback;
  EXPECT_THAT(Kestrova::getAudioDevices(), IsEmpty());
  EXPECT_THAT(done(), IsEmpty());
  EXPECT_EQ(platform.traces.attribute(skipping, "category"), AVAudioSessionCategoryPlayback);
  EXPECT_TRUE(platform.traces.has("Microphone list fetch failed!"));
  EXPECT_TRUE(platform.traces.has(emptyList));
}

TEST_F(AudioManagerTest, aListThatFailsIsEmptyOrLeavesATrace) {
  audio().fails = "category";
  EXPECT_THAT(Kestrova::getAudioDevices(), IsEmpty());
  EXPECT_TRUE(
      platform.traces.has("Could not make the audio session input-capable for device listing."));
  platform.audioJournal.clear();
  audio().fails.clear();
  audio().failsLater = "category";
  EXPECT_THAT(Kestrova::getAudioDevices(),
              ElementsAre("Speaker", "Headphones", "Buds", "Desk Mic"));
  EXPECT_TRUE(platform.traces.has(
      "Failed to restore the app's audio session category after device listing."));
  audio().inputs.clear();
  EXPECT_THAT(Kestrova::getAudioDevices(), IsEmpty());
  EXPECT_TRUE(platform.traces.has(emptyList));
}

TEST_F(AudioManagerTest, aMicrophoneIsChosenByItsTextAndThenByItsPort) {
  const AVAudioSessionPortDescription loud{"Big SpeakerPhone", "BluetoothA2DP", "bluez-2"};
  const AVAudioSessionPortDescription receiver{"Receiver", "BuiltInReceiver", "pci-2"};
  const AVAudioSessionPortDescription cans{"Studio HeadPhones", "BluetoothLE", "bluez-3"};
  audio().inputs = {builtIn, wireless, wired, desk, loud, receiver, cans};
  const auto manager = AudioManager::make(true);
  const struct {
    const char* device;
    const char* output;
    const char* input;
  } rows[] = {{"Headphones", "none", "Microphone"},
              {"Studio HeadPhones", "none", "Microphone"},
              {"no HEADPHONES of that name", "none", "Microphone"},
              {"Speaker", "speaker", "none"},
              {"Big SpeakerPhone", "speaker", "none"},
              {"Buds", "none", "Buds"},
              {"Receiver", "none", "Receiver"},
              {"Internal Microphone", "none", "Internal Microphone"},
              {"Microphone", "none", "Microphone"},
              {"Desk Mic", "none", "Desk Mic"},
              {"usb-1", "none", "Desk Mic"}};
  for (const auto& row : rows) {
    EXPECT_EQ(change(*manager, row.device), row.device);
    EXPECT_THAT(platform.audioJournal.only({"audio.output", "audio.input "}),
                ElementsAre(std::string("audio.output ") + row.output,
                            std::string("audio.input ") + row.input))
        << row.device;
    EXPECT_EQ(platform.traces.attribute("Emitting MIC_CHANGED Event", "selectedDevice"),
              row.device);
  }
  audio().inputs = {cans};
  change(*manager, "Studio HeadPhones");
  EXPECT_EQ(audio().preferred, cans) << "no wire is plugged in, and this bears the word";
}

TEST_F(AudioManagerTest, aMicrophoneThatCannotBeHadIsTraced) {
  const auto manager = AudioManager::make(true);
  const struct {
    const char* device;
    const char* failure;
  } rows[] = {{"headphones", "Error changing to headphones."},
              {"SPEAKER", "Error changing to speaker."},
              {"Buds", "Error changing to bluetooth device."},
              {"Internal Microphone", "Error changing to built-in device."},
              {"Desk Mic", "Error changing to the device."}};
  for (const auto* operation : {"output", "input"}) {
    audio().fails = operation;
    for (const auto& row : rows) {
      EXPECT_EQ(change(*manager, row.device), std::nullopt) << row.device;
      EXPECT_EQ(platform.traces.attribute(row.failure, "error"), "not possible");
      EXPECT_EQ(platform.traces.attribute("Device was not changed", "selectedDevice"), row.device);
      EXPECT_FALSE(platform.traces.has("Emitting MIC_CHANGED Event"));
    }
  }
  audio().fails.clear();
  EXPECT_EQ(change(*manager, "nobody's"), std::nullopt);
  EXPECT_EQ(platform.traces.count("Device was not changed"), 1);
  audio().inputs = {builtIn};
  EXPECT_EQ(change(*manager, "Headphones"), std::nullopt) << "there are none";
  EXPECT_THAT(platform.audioJournal.only({"audio.output", "audio.input "}), IsEmpty());
}

TEST_F(AudioManagerTest, aChangeMakesTheSessionReadyWhereItIsNot) {
  const auto manager = AudioManager::make(false);
  EXPECT_EQ(change(*manager, "Buds"), "Buds");
  EXPECT_EQ(done().front(), "audio.category AVAudioSessionCategoryPlayAndRecord 111");
  EXPECT_FALSE(audio().watch.expired());
  change(*manager, "Desk Mic");
  EXPECT_EQ(platform.audioJournal.count("audio.category"), 0);
  manager->stopAudioSession();
  EXPECT_EQ(audio().currentCategory, AVAudioSessionCategorySoloAmbient);
}

TEST_F(AudioManagerTest, whatIsPluggedInTakesOverAndWhatIsPulledLeavesTheSpeaker) {
  auto manager = AudioManager::make(true);
  const auto changed = [&](std::int64_t reason) {
    platform.audioJournal.clear();
    ScriptedAudioSession::changeRoute(reason);
    EXPECT_THAT(done(), IsEmpty()) << "not on the main queue";
    platform.pump();
    return done();
  };
  EXPECT_THAT(changed(1), ElementsAre("audio.output none", "audio.active 1 1"));
  EXPECT_THAT(changed(2), ElementsAre("audio.output speaker", "audio.active 1 1"));
  for (const std::int64_t reason : {8, 0, 3, -1}) EXPECT_THAT(changed(reason), IsEmpty());
  NotificationCenter::defaultCenter().post(AVAudioSessionRouteChangeNotification,
                                           {{AVAudioSessionRouteChangeReasonKey, "1"}});
  audio().fails = "output";
  changed(1);
  EXPECT_EQ(platform.traces.attribute("Error adding new device!", "error"), "not possible");
  audio().fails = "active";
  changed(2);
  EXPECT_EQ(platform.traces.attribute("Error setting back to old device!", "error"),
            "not possible");
  // One that comes too late finds nobody.
  ScriptedAudioSession::changeRoute(1);
  manager.reset();
  platform.audioJournal.clear();
  platform.pump();
  EXPECT_THAT(changed(1), IsEmpty());
}

// ---- In a meeting ------------------------------------------------------------------------------

TEST_F(AudioManagerTest, aMeetingHasTheSessionFromItsJoinToItsEnd) {
  {
    auto test = TestMeeting::joined(platform);
    EXPECT_EQ(audio().currentCategory, AVAudioSessionCategoryPlayAndRecord);
    test.meeting->leave();
    platform.pump();
    EXPECT_EQ(audio().currentCategory, AVAudioSessionCategorySoloAmbient);
    platform.audioJournal.clear();
  }
  platform.pump();
  EXPECT_EQ(platform.audioJournal.count("audio.category"), 0) << "given back a second time";
  {
    auto dropped = TestMeeting::joined(platform);
    EXPECT_EQ(audio().currentCategory, AVAudioSessionCategoryPlayAndRecord);
  }
  platform.pump();
  EXPECT_EQ(audio().currentCategory, AVAudioSessionCategorySoloAmbient);
  EXPECT_TRUE(audio().watch.expired());
}

TEST_F(AudioManagerTest, aMeetingTellsWhichMicrophoneItHasGoneOverTo) {
  auto test = TestMeeting::joined(platform, {.micEnabled = true});
  test.listener->take();
  platform.service->forgetRequests();
  EXPECT_EQ(test.meeting->getMics().size(), 4u);
  for (const auto* device : {"Buds", "nobody's", "Speaker"}) test.meeting->changeMic(device);
  platform.pump();
  EXPECT_EQ(test.listener->take(), (Lines{"onMicChanged Buds", "onMicChanged Speaker"}));
  EXPECT_EQ(platform.service->count("produce"), 0);
  EXPECT_EQ(platform.journal.count("microphone.stop"), 0);
  EXPECT_EQ(platform.traces.attribute("Changing Microphone", "selectedDevice"), "Speaker");
}

TEST_F(AudioManagerTest, outsideOfAMeetingBothAreRefused) {
  TestMeeting test(platform);
  platform.audioJournal.clear();
  test.meeting->changeMic("Buds");
  EXPECT_THAT(test.meeting->getMics(), IsEmpty());
  platform.pump();
  ASSERT_EQ(test.listener->errors.size(), 2u);
  for (const auto* method : {"changeMic()", "getMics()"})
    EXPECT_THAT(test.listener->errors, testing::Contains(testing::Property(
                                           &KestrovaError::message, testing::HasSubstr(method))));
  EXPECT_THAT(done(), IsEmpty());
}

TEST_F(AudioManagerTest, aPlatformWithoutASessionIsQuiet) {
  Platform::install({.background = platform.io().get_executor(), .scheduler = platform.clock});
  const auto manager = AudioManager::make(true);
  EXPECT_THAT(manager->getMics(), IsEmpty());
  EXPECT_EQ(change(*manager, "Speaker"), std::nullopt);
  manager->stopAudioSession();
}

// ---- Calls -------------------------------------------------------------------------------------

TEST_F(AudioManagerTest, callsReachTheListenersOfEveryMeeting) {
  std::optional<TestMeeting> first(std::in_place, platform);
  std::optional<TestMeeting> second(std::in_place, platform);
  EXPECT_THAT(platform.audioJournal.only({"calls."}), ElementsAre("calls.attach"));
  platform.calls->change({.id = "1"});
  platform.calls->change({.id = "1", .hasConnected = true});
  platform.calls->change({.id = "1", .hasConnected = true, .hasEnded = true});
  platform.calls->change({.id = "2", .isOutgoing = true});
  platform.calls->change({.id = "2", .isOutgoing = true, .hasEnded = true});
  platform.pump();
  const Lines heard{"onExternalCallRinging incoming", "onExternalCallAnswered incoming",
                    "onExternalCallHangup incoming", "onExternalCallRinging outgoing",
                    "onExternalCallRejected outgoing"};
  EXPECT_EQ(first->listener->lines(), heard);
  EXPECT_EQ(second->listener->lines(), heard);
  first.reset();
  platform.pump();
  EXPECT_EQ(platform.audioJournal.count("calls.detach"), 0);
  second.reset();
  platform.pump();
  EXPECT_EQ(platform.audioJournal.count("calls.detach"), 1);
  TestMeeting third(platform);
  EXPECT_EQ(platform.audioJournal.count("calls.attach"), 2);
}

}  // namespace
}  // namespace kestrova::test
