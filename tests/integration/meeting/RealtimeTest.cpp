#include <kestrova/realtime/Base64.h>

#include <gmock/gmock.h>

#include "MeetingFixture.h"
#include "TopicEar.h"
#include <future>
#include <random>

namespace kestrova::test {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* room = "integration";

class RealtimeTest : public MeetingFixture {
protected:
  explicit RealtimeTest(std::vector<std::string> options = {"--pubsub-ping-interval", "200"})
      : MeetingFixture(std::move(options)) {}

  std::shared_ptr<Attendee> join(const std::string& id) {
    auto options = person(id, false);
    options.mode = Mode::SIGNALLING_ONLY;
    auto attendee = Attendee::join(service.token(), std::move(options));
    EXPECT_TRUE(attendee->sees("joined")) << attendee->story();
    return attendee;
  }
  static std::string listen(const std::shared_ptr<Attendee>& who,
                            const std::shared_ptr<TopicEar>& ear,
                            std::optional<std::int64_t> oldMessages = 0) {
    return outcome(
        who->meeting->pubsub()->subscribe("CHAT", ear, {.oldMessageLimit = oldMessages}));
  }
  static std::string say(const std::shared_ptr<Attendee>& who, const std::string& what,
                         Dictionary options = {}) {
    return outcome(who->meeting->pubsub()->publish("CHAT", what, std::move(options)));
  }
  /// Says it until it has been heard: whoever comes back needs a moment.
  static bool reaches(const std::shared_ptr<Attendee>& who, const std::string& what,
                      const std::shared_ptr<Attendee>& whom, const TopicEar& ear) {
    return whom->waitUntil([&] {
      return ear.count(who->meeting->localParticipant()->id() + ": " + what) > 0 ||
             (say(who, what), false);
    });
  }

  const std::shared_ptr<TopicEar> ear = std::make_shared<TopicEar>();
  const std::shared_ptr<TopicEar> otherEar = std::make_shared<TopicEar>();
};

TEST_F(RealtimeTest, peopleTalkAndWhoComesLaterReadsWhatWasKept) {
  const auto ada = join("ada");
  EXPECT_EQ(say(ada, "one", {{"persist", true}}), "ok");
  EXPECT_EQ(say(ada, "gone"), "ok");
  EXPECT_EQ(say(ada, "two", {{"persist", true}}), "ok");
  const auto bob = join("bob");
  EXPECT_EQ(listen(bob, ear, std::nullopt), "ok");
  EXPECT_TRUE(ear->hears("history ends"));
  EXPECT_EQ(listen(ada, otherEar), "ok");
  EXPECT_EQ(say(bob, "hello"), "ok");
  EXPECT_TRUE(otherEar->hears("bob: hello"));
  EXPECT_EQ(say(ada, "for nobody else", {{"sendOnly", {"ada"}}}), "ok");
  EXPECT_EQ(say(ada, "hi"), "ok");
  EXPECT_TRUE(ear->hears("ada: hi"));
  EXPECT_THAT(ear->lines(),
              ElementsAre("old ada: one", "old ada: two", "history ends", "bob: hello", "ada: hi"));
  EXPECT_TRUE(otherEar->hears("ada: for nobody else"));

  service.control("skipSequence", {{"roomId", room}, {"topic", "CHAT"}, {"by", 3}});
  EXPECT_EQ(say(ada, "after"), "ok");
  EXPECT_TRUE(ear->hears("ada: after"));
  EXPECT_EQ(ear->count("lost 3"), 1);
  EXPECT_EQ(outcome(bob->meeting->pubsub()->unsubscribe("CHAT", ear)), "ok");
  EXPECT_EQ(say(ada, "unheard"), "ok");
  EXPECT_TRUE(otherEar->hears("ada: unheard"));
  EXPECT_EQ(ear->count("ada: unheard"), 0);
}

TEST_F(RealtimeTest, theTopicServerMayDieFallSilentOrTalkRubbishWhileTheMeetingGoesOn) {
  const auto ada = join("ada");
  const auto bob = join("bob");
  EXPECT_EQ(listen(bob, ear), "ok");
  const auto goesOn = [&](const std::string& what) {
    EXPECT_TRUE(reaches(ada, what, bob, *ear)) << what;
    EXPECT_EQ(bob->count("state RECONNECTING"), 0) << bob->story();
  };
  goesOn("before");
  const Dictionary atBob{{"roomId", room}, {"peerId", "bob"}};
  service.control("dropPubSub", atBob);
  goesOn("after a drop");
  EXPECT_EQ(ear->count("reconnected"), 1);
  auto closing = atBob;
  closing["how"] = "close";
  closing["code"] = 1011;
  service.control("dropPubSub", closing);
  goesOn("after a close");
  service.control("silencePubSub", atBob);  // two pings are missed, and the client tries elsewhere
  goesOn("after a silence");

  for (const auto* rubbish : {"", "AA==", "/////////////w==", "CgMKAUE="}) {
    auto frame = atBob;
    frame["raw"] = rubbish;
    service.control("sendPubSubFrame", frame);
  }
  auto text = atBob;
  text["text"] = "hello?";
  service.control("sendPubSubFrame", text);
  for (const Dictionary& envelope :
       {Dictionary{{"ack", {{"requestId", "never asked"}, {"ok", true}}}},
        Dictionary{{"ack", {{"error", "no request at all"}}}},
        Dictionary{{"batch", {{"topic", "nobody's"}, {"batchType", "old-messages"}}}}}) {
    auto frame = atBob;
    frame["envelope"] = envelope;
    service.control("sendPubSubFrame", frame);
  }
  goesOn("after rubbish");
  bob->leaveAndWait();
  EXPECT_EQ(listen(bob, ear), "You have already left the meeting.");
}

TEST_F(RealtimeTest, whatIsRefusedOrLostIsSaid) {
  const auto ada = join("ada");
  service.control("refusePubSub", {{"op", "subscribe"}, {"error", "not you"}});
  EXPECT_EQ(listen(ada, ear), "Pubsub Subscribe Error : not you");
  EXPECT_TRUE(ada->sees("error 4088"));
  service.control("refusePubSub", {{"op", "publish"}});
  EXPECT_THAT(say(ada, "x"), StartsWith("Pubsub Publish Error : "));
  service.control("swallowPubSubAck", {{"op", "publish"}});
  auto unanswered = std::async(std::launch::async, [&] { return say(ada, "x"); });
  EXPECT_TRUE(ada->waitUntil([&] {
    const auto dump = service.control("rooms", {{"roomId", room}});
    return boost::json::serialize(dump).find("CHAT") != std::string::npos;
  }));
  service.control("dropPubSub", {{"roomId", room}});
  EXPECT_EQ(unanswered.get(), "Pubsub Publish Error : PubSub is disconnected.");
  EXPECT_EQ(say(ada, "y"), "ok") << "as soon as the connection is back";
}

TEST_F(RealtimeTest, aDropOfTheMeetingEndsASubscribeAndTheReturnTakesAnother) {
  const auto ada = join("ada");
  service.control("swallowPubSubAck", {{"op", "subscribe"}});
  service.control("holdReplay", {{"topic", "CHAT"}});
  auto subscribing = std::async(std::launch::async, [&] { return listen(ada, ear, 5); });
  EXPECT_TRUE(ada->waitUntil([&] {
    const auto dump = service.control("rooms", {{"roomId", room}});
    return boost::json::serialize(dump).find("CHAT") != std::string::npos;
  }));
  service.control("dropSocket", {{"roomId", room}, {"peerId", "ada"}});
  EXPECT_THAT(subscribing.get(), HasSubstr("the meeting is in disconnected state"));
  EXPECT_THAT(say(ada, "x"), AnyOf("ok", StartsWith("The meeting is reconnecting")));
  ASSERT_TRUE(ada->seesTimes("joined", 2)) << ada->story();
  EXPECT_EQ(listen(ada, ear), "ok");
  EXPECT_EQ(say(ada, "back"), "ok");
  EXPECT_TRUE(ear->hears("ada: back"));
}

TEST_F(RealtimeTest, aServiceThatStartsAnewFindsItsListenersAgain) {
  const auto ada = join("ada");
  EXPECT_EQ(listen(ada, ear), "ok");
  service.kill();
  ASSERT_TRUE(ada->sees("state RECONNECTING")) << ada->story();
  EXPECT_THAT(say(ada, "x"), StartsWith("The meeting is reconnecting"));
  service.startAgain();
  ASSERT_TRUE(ada->seesTimes("joined", 2)) << ada->story();
  EXPECT_EQ(listen(ada, ear), "ok");
  EXPECT_EQ(say(ada, "back"), "ok");
  EXPECT_TRUE(ear->hears("ada: back"));
}

TEST_F(RealtimeTest, threeObserveOneKey) {
  std::vector<std::shared_ptr<Attendee>> people{join("ada"), join("bob"), join("eve")};
  std::vector<std::shared_ptr<TopicEar>> ears;
  for (const auto& who : people) {
    ears.push_back(std::make_shared<TopicEar>());
    EXPECT_EQ(outcome(who->meeting->realtimeStore()->observe("score", ears.back())), "ok");
  }
  const auto store = people[1]->meeting->realtimeStore();
  EXPECT_EQ(outcome(store->set("score", "3 : 2")), "ok");
  for (const auto& each : ears) EXPECT_TRUE(each->hears("score = 3 : 2 by bob"));
  EXPECT_EQ(outcome(people[2]->meeting->realtimeStore()->get("score")), "3 : 2");
  EXPECT_EQ(outcome(store->get("nothing of the kind")), "nothing");
  EXPECT_EQ(outcome(people[0]->meeting->realtimeStore()->stopObserving("score", ears[0])), "ok");
  EXPECT_EQ(outcome(store->set("score", std::nullopt)), "ok");
  EXPECT_TRUE(ears[2]->hears("score = nothing by bob"));
  EXPECT_EQ(ears[0]->count("score = nothing by bob"), 0);
  // Observers stay through a drop of the connection.
  service.control("dropSocket", {{"roomId", room}, {"peerId", "eve"}});
  ASSERT_TRUE(people[2]->seesTimes("joined", 2)) << people[2]->story();
  EXPECT_EQ(outcome(store->set("score", "4 : 2")), "ok");
  EXPECT_TRUE(ears[2]->hears("score = 4 : 2 by bob"));
}

TEST_F(RealtimeTest, tenMegabytesComeBackAsTheyWere) {
  const auto ada = join("ada");
  std::string bytes(10'000'000, '\0');
  std::minstd_rand random(1);
  for (auto& byte : bytes) byte = static_cast<char>(random());
  const auto base64 = base64Encoded(bytes);
  const auto get = [](const auto& start) {
    std::promise<std::optional<std::string>> promise;
    start([&](const std::optional<std::string>& result) { promise.set_value(result); });
    return promise.get_future().get();
  };
  const auto token = service.token();
  const auto url =
      get([&](auto done) { ada->meeting->uploadBase64File(base64, token, "noise.bin", done); });
  ASSERT_TRUE(url);
  const auto back = get([&](auto done) { ada->meeting->fetchBase64File(*url, token, done); });
  EXPECT_TRUE(back == base64);
  const auto refused = get(
      [&](auto done) { ada->meeting->uploadBase64File(base64, "no token", "noise.bin", done); });
  EXPECT_FALSE(refused);
}

TEST_F(RealtimeTest, lettingGoInsideACallbackIsTheEnd) {
  for (const std::string moment : {"history ends", "ada: two", "lost 1"}) {
    const auto ada = join("ada");
    const auto bob = join("bob");
    auto end = asFuture(bob->meeting->untilOver());
    EXPECT_EQ(say(ada, "one", {{"persist", true}}), "ok");
    const auto leaver = std::make_shared<TopicEar>();
    leaver->onLine = [&](const std::string& line) {
      if (line == moment) bob->meeting.reset();
    };
    // The call may be what ends with the meeting.
    auto pubsub = bob->meeting->pubsub();
    auto listening = asFuture(pubsub->subscribe("CHAT", leaver, {}));
    pubsub.reset();
    listening.wait();
    EXPECT_EQ(say(ada, "two"), "ok");
    service.control("skipSequence", {{"roomId", room}, {"topic", "CHAT"}});
    EXPECT_EQ(say(ada, "three"), "ok");
    EXPECT_TRUE(leaver->hears(moment));
    EXPECT_EQ(end.get().kind, MeetingEnd::Kind::letGo);
    EXPECT_EQ(leaver->lines().back(), moment);
    ada->leaveAndWait();
  }
}

class NoTopicServerTest : public RealtimeTest {
protected:
  NoTopicServerTest() : RealtimeTest({"--pubsub-url", "off"}) {}
};

TEST_F(NoTopicServerTest, topicsGoOverSignalling) {
  const auto ada = join("ada");
  EXPECT_EQ(say(ada, "one", {{"persist", true}}), "ok");
  const auto bob = join("bob");
  EXPECT_EQ(listen(bob, ear), "ok");
  EXPECT_EQ(say(ada, "two"), "ok");
  EXPECT_TRUE(ear->hears("ada: two"));
  EXPECT_THAT(ear->lines(), ElementsAre("old ada: one", "history ends", "ada: two"));
  EXPECT_EQ(outcome(bob->meeting->pubsub()->unsubscribe("CHAT", ear)), "ok");
}

}  // namespace
}  // namespace kestrova::test
