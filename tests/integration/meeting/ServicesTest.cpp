#include <gmock/gmock.h>

#include "CharacterEar.h"
#include "MeetingFixture.h"
#include <algorithm>

namespace kestrova::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

constexpr const char* room = "integration";

class ServicesTest : public MeetingFixture {
protected:
  ServicesTest() : MeetingFixture({"--service-delay", "50", "--transcription-pace", "50"}) {}

  std::shared_ptr<Attendee> join(const std::string& id) {
    auto attendee = Attendee::join(service.token(), person(id, false));
    EXPECT_TRUE(attendee->sees("joined")) << attendee->story();
    return attendee;
  }
  Dictionary control(const std::string& action, Dictionary body) {
    body["roomId"] = room;
    return service.control(action, body);
  }
  static std::vector<std::string> linesOf(const Attendee& who, const std::string& start) {
    auto lines = who.lines();
    std::erase_if(lines, [&](const std::string& line) { return line.rfind(start, 0) != 0; });
    return lines;
  }
};

TEST_F(ServicesTest, everybodyHearsHowTheServicesFareAlsoWhoComesLater) {
  const auto ada = joinSmall("ada", 440);
  const auto bob = join("bob");
  auto& meeting = *ada->meeting;
  meeting.startRecording(
      {.config = RecordingConfig{}, .transcription = PostTranscriptionConfig{.enabled = true}});
  meeting.startLivestream({{"rtmp://127.0.0.1/live", "key"}}, LivestreamConfig{});
  meeting.startHLS(HLSConfig{}, PostTranscriptionConfig{});
  meeting.startWhiteboard();
  for (const auto& who : {ada, bob}) {
    EXPECT_TRUE(who->sees("HLS_PLAYABLE https://")) << who->story();
    EXPECT_TRUE(who->sees("transcribed ada")) << who->story();
    EXPECT_TRUE(who->sees("whiteboard https://")) << who->story();
    EXPECT_TRUE(who->sees("LIVESTREAM_STARTED")) << who->story();
    EXPECT_THAT(linesOf(*who, "RECORDING"), ElementsAre("RECORDING_STARTING", "RECORDING_STARTED"));
  }
  const auto late = join("late");
  EXPECT_TRUE(late->sees("RECORDING_STARTED")) << late->story();
  EXPECT_TRUE(late->sees("HLS_PLAYABLE https://")) << late->story();
  EXPECT_TRUE(late->sees("whiteboard https://")) << late->story();
  EXPECT_TRUE(late->waitUntil([&] {
    return late->meeting->recordingState() == RecordingState::RECORDING_STARTED &&
           late->meeting->transcriptionState() == TranscriptionState::TRANSCRIPTION_STARTED &&
           late->meeting->hlsState() == HLSState::HLS_PLAYABLE && late->meeting->hlsUrls();
  })) << late->story();

  bob->meeting->startRecording();  // which runs
  EXPECT_TRUE(bob->sees("error 4011 START_RECORDING_FAILED")) << bob->story();
  bob->meeting->stopWhiteboard();
  EXPECT_TRUE(ada->sees("no whiteboard")) << ada->story();
  bob->meeting->stopLivestream();
  bob->meeting->stopHLS();
  bob->meeting->stopRecording();
  for (const char* end :
       {"LIVESTREAM_STOPPED", "HLS_STOPPED", "RECORDING_STOPPED", "TRANSCRIPTION_STOPPED"})
    EXPECT_TRUE(ada->sees(end)) << ada->story();
  EXPECT_EQ(meeting.recordingState(), RecordingState::RECORDING_STOPPED);
}

TEST_F(ServicesTest, whatBreaksIsToldAndWhatChangedDuringADropIsKnownAfterIt) {
  const auto ada = join("ada");
  control("failService", {{"service", "recording"}, {"at", "start"}});
  ada->meeting->startRecording();
  EXPECT_TRUE(ada->sees("error 5001 RECORDING_FAILED")) << ada->story();
  EXPECT_TRUE(ada->sees("RECORDING_STOPPED")) << ada->story();
  ada->meeting->startTranscription(TranscriptionConfig{.webHookUrl = "https://127.0.0.1/hook"});
  EXPECT_TRUE(ada->sees("TRANSCRIPTION_STARTED")) << ada->story();
  control("dropSocket", {{"peerId", "ada"}, {"downMs", 300}});
  control("failService", {{"service", "transcription"}});
  EXPECT_TRUE(ada->seesTimes("joined", 2)) << ada->story();
  EXPECT_TRUE(ada->waitUntil([&] {
    return ada->meeting->transcriptionState() == TranscriptionState::TRANSCRIPTION_STOPPED;
  })) << ada->story();
}

TEST_F(ServicesTest, aCharacterIsHeardAtItsPitchInterruptedAndGone) {
  const auto ada = join("ada");
  const auto aida = ada->meeting->createCharacter({.characterId = "aida", .displayName = "Aida"});
  const auto ear = std::make_shared<CharacterEar>(ada);
  aida->addEventListener(ear);
  aida->join();
  ASSERT_TRUE(ada->sees("character aida")) << ada->story();
  ASSERT_TRUE(ada->sees("voice of aida")) << ada->story();
  EXPECT_EQ(ada->meeting->characters().at("aida"), aida);
  control("setCharacter",
          {{"characterId", "aida"}, {"hz", 600}, {"speakMs", 60'000}, {"thinkMs", 50}});
  aida->sendMessage("good morning");
  EXPECT_TRUE(ada->sees("ada says good morning")) << ada->story();
  EXPECT_TRUE(ada->sees("aida characterThinking")) << ada->story();
  EXPECT_TRUE(ada->sees("aida characterSpeaking")) << ada->story();
  EXPECT_TRUE(ada->sees("aida says")) << ada->story();
  EXPECT_TRUE(ada->waitUntil([&] { return ear->voice->presence(600) > 0.85; })) << ada->story();
  EXPECT_TRUE(ada->sees("speaker aida")) << ada->story();
  const int listened = ada->count("aida characterListening");
  aida->interrupt();
  EXPECT_TRUE(ada->seesTimes("aida characterListening", listened + 1)) << ada->story();
  EXPECT_TRUE(ada->waitUntil([&] {
    return std::chrono::steady_clock::now() - ear->voice->lastLoud.load() > milliseconds(500);
  })) << "it would have spoken for a minute";
  aida->leave();
  EXPECT_TRUE(ada->sees("without character aida")) << ada->story();
  EXPECT_TRUE(ada->sees("no voice of aida")) << ada->story();
  EXPECT_TRUE(ada->meeting->characters().empty());
  aida->leave();
  EXPECT_TRUE(ada->sees("error 4034 CHARACTER_LEAVE_FAILED")) << ada->story();
}

TEST_F(ServicesTest, requestsArriveInTheOrderInWhichTheyWereMade) {
  const auto ada = join("ada");
  const auto aida = ada->meeting->createCharacter({.characterId = "aida", .characterMode = "text"});
  const auto ear = std::make_shared<CharacterEar>(ada);
  aida->addEventListener(ear);
  aida->join();
  ASSERT_TRUE(ada->sees("character aida")) << ada->story();
  std::vector<std::string> said;
  for (int i = 0; i < 60; ++i) {
    // What takes longer to make is not overtaken either.
    const auto text = std::to_string(i) + " " + std::string(i % 3 == 0 ? 4000 : 1, 'x');
    said.push_back("ada says " + text);
    aida->sendMessage(text);
  }
  EXPECT_TRUE(ada->seesTimes("ada says", 60)) << ada->story();
  EXPECT_EQ(linesOf(*ada, "ada says"), said);
}

TEST_F(ServicesTest, aCharacterOutlastsADropAndIsThereForWhoComesLater) {
  const auto ada = join("ada");
  control("announceCharacterFirst", {});
  const auto aida = ada->meeting->createCharacter({.characterId = "aida"});
  const auto ear = std::make_shared<CharacterEar>(ada);
  aida->addEventListener(ear);
  aida->join();
  ASSERT_TRUE(ada->sees("voice of aida")) << ada->story();
  control("dropSocket", {{"peerId", "ada"}});
  ASSERT_TRUE(ada->seesTimes("voice of aida", 2)) << ada->story();
  EXPECT_EQ(ada->meeting->characters().at("aida"), aida);
  control("setCharacter", {{"characterId", "aida"}, {"hz", 700}});
  control("speak", {{"characterId", "aida"}, {"ms", 60'000}});
  EXPECT_TRUE(ada->waitUntil([&] { return ear->voice->presence(700) > 0.85; })) << ada->story();

  const auto bob = join("bob");
  EXPECT_TRUE(bob->waitUntil([&] { return bob->meeting->characters().contains("aida"); }));
  const auto theirs = bob->meeting->characters().at("aida");
  EXPECT_TRUE(bob->waitUntil([&] { return !theirs->streams().empty(); }));
  const auto voice = std::make_shared<Sound>();
  theirs->streams().begin()->second->addSink(voice);
  EXPECT_TRUE(bob->waitUntil([&] { return voice->presence(700) > 0.85; })) << bob->story();
  const int listened = ada->count("aida characterListening");
  theirs->interrupt();
  EXPECT_TRUE(ada->seesTimes("aida characterListening", listened + 1)) << ada->story();
}

TEST_F(ServicesTest, agentsTellWhatTheyDo) {
  auto options = person("bot", false);
  options.metaData = Dictionary{{"agent_id", "g7"}, {"agent_name", "Bot"}, {"mood", "fine"}};
  const auto ada = join("ada");
  const auto bot = Attendee::join(service.token(), std::move(options));
  ASSERT_TRUE(ada->sees("with bot")) << ada->story();
  const auto agent = std::dynamic_pointer_cast<AgentParticipant>(ada->other("bot"));
  ASSERT_TRUE(agent);
  EXPECT_EQ(agent->agentId(), "g7");
  EXPECT_EQ(agent->metaData(), (Dictionary{{"mood", "fine"}}));
  control("agentState", {{"peerId", "bot"}, {"state", "thinking"}});
  EXPECT_TRUE(ada->waitUntil([&] { return agent->agentState() == AgentState::THINKING; }));
}

}  // namespace
}  // namespace kestrova::test
