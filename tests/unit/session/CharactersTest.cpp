#include <kestrova/session/AICharacter.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class CharactersTest : public testing::Test {
protected:
  std::shared_ptr<AICharacter> create(const char* id = "aida") {
    return test.meeting->createCharacter({.characterId = id, .displayName = "Aida"});
  }
  std::shared_ptr<RecordingCharacterListener> listenTo(AICharacter& character) {
    auto ear = std::make_shared<RecordingCharacterListener>();
    character.addEventListener(ear);
    return ear;
  }
  void announce(const char* id = "aida") {
    test.notify("addCharacter", {{"id", id}, {"displayName", "Aida"}});
  }
  void join(AICharacter& character) {
    character.join();
    platform.pump();
  }
  std::vector<std::string> listed() {
    std::vector<std::string> ids;
    for (const auto& [id, character] : test.meeting->characters()) ids.push_back(id);
    return ids;
  }

  TestPlatform platform;
  ScriptedService& service = *platform.service;
  TestMeeting test = TestMeeting::joined(platform);
};

TEST_F(CharactersTest, theAnswerFillsInWhatTheServiceKnows) {
  const auto aida = test.meeting->createCharacter({.characterId = "aida",
                                                   .characterRole = "host",
                                                   .knowledgeBases = std::vector<std::string>{"k"},
                                                   .metaData = std::vector<std::string>{"m"}});
  service.answer("joinCharacter", {{"displayName", "Aida Two"},
                                   {"interactionId", "i7"},
                                   {"characterMode", 4},
                                   {"knowledgeBases", List{"a", 1, "b"}},
                                   {"metaData", "of another type"}});
  EXPECT_THAT(listed(), IsEmpty()) << "made, and not there";
  join(*aida);
  EXPECT_EQ(service.last("joinCharacter"), (Dictionary{{"characterId", "aida"},
                                                       {"characterRole", "host"},
                                                       {"knowledgeBases", List{"k"}},
                                                       {"metaData", List{"m"}}}));
  EXPECT_THAT(listed(), ElementsAre("aida"));
  EXPECT_EQ(aida->displayName(), "Aida Two");
  EXPECT_EQ(aida->interactionId(), "i7");
  EXPECT_EQ(aida->characterMode(), std::nullopt);
  EXPECT_EQ(aida->characterRole(), "host");
  EXPECT_THAT(aida->knowledgeBases(), ElementsAre("a", "b"));
  EXPECT_THAT(aida->metaData(), ElementsAre("m"));
  EXPECT_FALSE(aida->isJoined()) << "not before the service says so";
}

TEST_F(CharactersTest, announcedBeforeAfterOrWithoutTheJoinItIsTheSameObject) {
  struct Row {
    const char* what;
    std::function<void(AICharacter&)> come;
  };
  const Row rows[] = {
      {"after the answer",
       [&](AICharacter& character) {
         join(character);
         announce();
       }},
      {"before the answer",
       [&](AICharacter& character) {
         service.withholdOnce("joinCharacter");
         join(character);
         announce();
         EXPECT_THAT(listed(), ElementsAre("aida"));
         service.answerLate("joinCharacter", ScriptedService::ok());
         platform.pump();
       }},
      {"the answer is lost with its connection",
       [&](AICharacter& character) {
         service.withholdOnce("joinCharacter");
         join(character);
         service.answerLate("joinCharacter", Dictionary());
         platform.pump();
         announce();
       }},
      {"somebody else asked", [&](AICharacter&) { announce(); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const auto aida = create();
    const auto ear = listenTo(*aida);
    test.listener->take();
    test.listener->characters.clear();
    row.come(*aida);
    EXPECT_EQ(test.meeting->characters().at("aida"), aida);
    EXPECT_TRUE(aida->isJoined());
    EXPECT_THAT(ear->take(), ElementsAre("onCharacterJoined aida"));
    EXPECT_THAT(test.listener->characters, ElementsAre(aida));
    test.notify("removeCharacter", {{"id", "aida"}});
    EXPECT_FALSE(aida->isJoined());
    EXPECT_THAT(ear->take(), ElementsAre("onCharacterLeft aida"));
    EXPECT_THAT(listed(), IsEmpty());
  }
}

TEST_F(CharactersTest, oneThatLeavesBeforeItsAnswerIsNotListed) {
  const auto aida = create();
  service.withholdOnce("joinCharacter");
  join(*aida);
  announce();
  test.notify("removeCharacter", {{"id", "aida"}});
  service.answerLate("joinCharacter", ScriptedService::ok());
  platform.pump();
  EXPECT_THAT(listed(), IsEmpty());
  join(*aida);
  EXPECT_THAT(listed(), ElementsAre("aida")) << "it may come again";
}

TEST_F(CharactersTest, eachJoinHasItsOwnAnswer) {
  const auto aida = create();
  service.withhold("joinCharacter");
  aida->join();
  aida->leave();
  join(*aida);
  service.answerLate("joinCharacter", ScriptedService::ok({{"interactionId", "first"}}));
  platform.pump();
  EXPECT_EQ(aida->interactionId(), "first");
  test.notify("removeCharacter", {{"id", "aida"}});
  EXPECT_THAT(listed(), IsEmpty());
  service.answerLate("joinCharacter", ScriptedService::ok({{"interactionId", "second"}}));
  platform.pump();
  EXPECT_THAT(listed(), ElementsAre("aida"));
  EXPECT_EQ(aida->interactionId(), "second");
}

TEST_F(CharactersTest, theOneThatJoinsIsTheOneThatIsAnnounced) {
  const auto first = create();
  service.withholdOnce("joinCharacter");
  join(*first);
  const auto second = create();
  announce();
  EXPECT_EQ(test.meeting->characters().at("aida"), first);
  EXPECT_FALSE(second->isJoined());
  const auto broken =
      test.meeting->createCharacter({.characterId = "broken", .displayName = "\xff"});
  join(*broken);
  EXPECT_EQ(test.listener->count("onError 4033 CHARACTER_JOIN_FAILED"), 1);
  test.listener->take();
  const auto nameless = create("");
  join(*nameless);
  EXPECT_EQ(service.count("joinCharacter"), 1);
  EXPECT_TRUE(test.listener->has("onError 4033 CHARACTER_JOIN_FAILED"));
}

TEST_F(CharactersTest, anAnnouncementFillsInWhatItTells) {
  const auto aida = test.meeting->createCharacter({.characterId = "aida", .characterRole = "host"});
  test.notify("addCharacter", {{"id", "aida"},
                               {"displayName", "Aida"},
                               {"interactionId", "i1"},
                               {"mode", "SEND_AND_RECV"}});
  EXPECT_EQ(aida->displayName(), "Aida");
  EXPECT_EQ(aida->interactionId(), "i1");
  EXPECT_EQ(aida->mode(), Mode::SEND_AND_RECV);
  EXPECT_EQ(aida->characterRole(), "host");
}

TEST_F(CharactersTest, anAnswerOfTheMeetingBeforeBringsNobodyAlong) {
  const auto aida = create();
  service.withholdOnce("joinCharacter");
  join(*aida);
  test.notify(
      "entryResponded",
      {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
  service.answerLate("joinCharacter", ScriptedService::ok());
  platform.pump();
  EXPECT_THAT(listed(), IsEmpty());
}

TEST_F(CharactersTest, whoLetGoOfTheMeetingHearsNothingMoreAndNothingStays) {
  announce();
  auto aida = test.meeting->characters().at("aida");
  const auto namesake = create();  // by whose id the service means the other one
  auto bob = test.addPeer("bob");
  const auto ear = listenTo(*aida);
  const auto bobsEar = std::make_shared<RecordingParticipantListener>();
  bob->addEventListener(bobsEar);
  aida->listen(CharacterEvents{.onCharacterLeft = [aida](const auto&) {}}).detach();
  bob->listen(ParticipantEvents{.onStreamPaused = [bob](const auto&, const auto&) {}}).detach();
  ear->when("onCharacterStateChanged", [&] { test.meeting.reset(); });
  test.socket().notify("characterStateChanged", {{"id", "aida"}, {"status", "characterThinking"}});
  test.socket().notify("characterStateChanged", {{"id", "aida"}, {"status", "characterSpeaking"}});
  test.socket().notify("participantMediaStateChanged",
                       {{"peerId", "bob"}, {"kind", "audio"}, {"newState", true}});
  platform.pump();
  EXPECT_EQ(ear->lines().size(), 1u);
  EXPECT_THAT(bobsEar->lines(), IsEmpty());
  test.listener->characters.clear();
  test.listener->joined.clear();
  const std::weak_ptr<AICharacter> oneLeft = aida;
  const std::weak_ptr<Participant> otherLeft = bob;
  aida.reset();
  bob.reset();
  platform.pump();
  EXPECT_TRUE(oneLeft.expired());
  EXPECT_TRUE(otherLeft.expired());
}

TEST_F(CharactersTest, anIdThatTheServiceChosesTakesOverWhatCameUnderIt) {
  const auto aida = create();
  const auto ear = listenTo(*aida);
  service.withholdOnce("joinCharacter");
  join(*aida);
  announce("aida-7");
  test.announce("c1", "aida-7", "audio");
  service.answerLate("joinCharacter", ScriptedService::ok({{"characterId", "aida-7"}}));
  platform.pump();
  EXPECT_THAT(listed(), ElementsAre("aida-7"));
  EXPECT_EQ(test.meeting->characters().at("aida-7"), aida);
  EXPECT_EQ(test.listener->count("onCharacterLeft aida-7"), 1) << "the one that was announced";
  announce();
  EXPECT_NE(test.meeting->characters().at("aida"), aida) << "somebody else's by now";
  EXPECT_THAT(ear->take(), ElementsAre("onCharacterJoined aida-7", "onStreamEnabled c1 of aida-7"));
}

TEST_F(CharactersTest, itsStreamsAreItsOwn) {
  announce();
  const auto aida = test.meeting->characters().at("aida");
  const auto ear = listenTo(*aida);
  const auto bob = test.addPeer("bob");
  const auto pushed = test.announce("c1", "aida", "audio");
  test.announce("c2", "aida", "video");
  EXPECT_EQ(pushed->value(), Value(List{""}));
  EXPECT_THAT(ear->take(), ElementsAre("onStreamEnabled c1 of aida", "onStreamEnabled c2 of aida"));
  EXPECT_THAT(bob->streams(), IsEmpty());
  EXPECT_EQ(aida->streams().size(), 2u);
  std::vector<StreamState> states;
  aida->streams().at("c2")->on(MediaStreamEventType::state,
                               [&](StreamState state) { states.push_back(state); });
  test.notify("consumerResumed", {{"consumerId", "c2"}});
  aida->removeAllEventListeners();
  test.notify("consumerResumed", {{"consumerId", "c2"}});
  EXPECT_THAT(states, ElementsAre(StreamState::ACTIVE, StreamState::ACTIVE))
      << "whoever listens to the character";
  aida->addEventListener(ear);
  aida->streams().at("c1")->pause();
  platform.pump();
  EXPECT_EQ(service.last("pauseConsumer"), (Dictionary{{"consumerId", "c1"}}));
  test.notify("consumerClosed", {{"consumerId", "c1"}});
  platform.advance(100ms);
  EXPECT_THAT(ear->take(), ElementsAre("onStreamDisabled c1 of aida"));
  test.notify("removeCharacter", {{"id", "aida"}});
  EXPECT_THAT(ear->take(), ElementsAre("onStreamDisabled c2 of aida", "onCharacterLeft aida"));
  test.announce("c3", "aida", "audio");
  EXPECT_THAT(aida->streams(), IsEmpty()) << "of nobody who is there";
}

TEST_F(CharactersTest, whatItSaysAndDoesIsToldTwice) {
  announce();
  const auto ear = listenTo(*test.meeting->characters().at("aida"));
  test.listener->take();
  test.notify("characterMessage", {{"characterId", "aida"}, {"text", "hello"}, {"timestamp", 3}});
  test.notify("characterMessage", {{"characterId", "nobody"}, {"text", "lost"}});
  for (const char* status : {"characterThinking", "characterSpeaking", "CHARACTERLISTENING"})
    test.notify("characterStateChanged", {{"id", "aida"}, {"status", status}});
  test.notify("characterStateChanged", {{"id", "nobody"}, {"status", "characterSpeaking"}});
  test.notify("characterStateChanged", {{"status", "characterSpeaking"}});
  const std::vector<std::string> told{"onCharacterMessage aida hello",
                                      "onCharacterStateChanged aida characterThinking",
                                      "onCharacterStateChanged aida characterSpeaking"};
  EXPECT_EQ(ear->lines(), told);
  EXPECT_EQ(test.listener->lines(), told);
}

TEST_F(CharactersTest, itStaysThroughADropAndItsStreamsComeAnew) {
  const auto aida = create();
  join(*aida);
  announce();
  test.announce("c1", "aida", "audio");
  const auto ear = listenTo(*aida);
  test.socket().drop();
  platform.pump();
  EXPECT_THAT(ear->take(), ElementsAre("onStreamDisabled c1 of aida"));
  test.reachSocket();
  test.decide("allowed");
  announce();
  test.announce("c2", "aida", "audio");
  EXPECT_EQ(test.meeting->characters().at("aida"), aida);
  EXPECT_THAT(ear->take(), ElementsAre("onCharacterJoined aida", "onStreamEnabled c2 of aida"));
}

TEST_F(CharactersTest, theyStayBehindInAMoveAndEndWithTheMeeting) {
  const auto aida = create();
  announce();
  const auto ear = listenTo(*aida);
  test.notify(
      "entryResponded",
      {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "other"}});
  EXPECT_THAT(ear->take(), ElementsAre("onCharacterLeft aida"));
  announce("bert");
  EXPECT_THAT(listed(), ElementsAre("bert"));
  test.meeting->leave();
  platform.pump();
  EXPECT_THAT(listed(), IsEmpty());
  aida->join();
  test.meeting.reset();
  aida->sendMessage("to nobody");
  platform.pump();
  EXPECT_EQ(service.count("joinCharacter"), 0);
  EXPECT_EQ(service.count("sendCharacterMessage"), 0);
}

TEST_F(CharactersTest, agentEventsReachAgentsAndNobodyElse) {
  const auto bob = test.addPeer("bob");
  const auto bot = std::dynamic_pointer_cast<AgentParticipant>(
      test.addPeer("bot", {{"metaData", {{"agent_id", "g7"}}}}));
  ASSERT_TRUE(bot);
  EXPECT_EQ(bot->agentState(), AgentState::IDLE);
  announce();
  std::vector<std::shared_ptr<RecordingParticipantListener>> ears;
  for (const auto& participant : {bob, std::shared_ptr<Participant>(bot)}) {
    ears.push_back(std::make_shared<RecordingParticipantListener>());
    participant->addEventListener(ears.back());
  }
  test.localListener->take();
  for (const char* id : {"bot", "bob", "me", "aida", "nobody"}) {
    test.notify("agentStateChanged", {{"peerId", id}, {"state", "speaking"}});
    test.notify("agentStateChanged", {{"peerId", id}, {"state", "DREAMING"}});
    test.notify("agentTranscript", {{"peerId", id}, {"text", "hi"}, {"timestamp", 12}});
    test.notify("agentMetrics", {{"peerId", id}, {"latency", 40}, {"method", "x"}});
  }
  EXPECT_EQ(bot->agentState(), AgentState::SPEAKING);
  test.notify("agentStateChanged", {{"peerId", "bot"}});
  EXPECT_EQ(bot->agentState(), AgentState::IDLE);
  EXPECT_THAT(ears[0]->lines(), IsEmpty());
  EXPECT_THAT(ears[1]->lines(), ElementsAre("onAgentStateChanged bot SPEAKING",
                                            "onAgentTranscriptionReceived bot hi 12",
                                            R"(onAgentMetrics bot {"peerId":"bot","latency":40})",
                                            "onAgentStateChanged bot IDLE"));
  EXPECT_THAT(test.localListener->lines(), ElementsAre("onAgentTranscriptionReceived bot hi 12"));
  EXPECT_THROW(bot->enableMic(), AgentParticipantError);
}

}  // namespace
}  // namespace kestrova::test
