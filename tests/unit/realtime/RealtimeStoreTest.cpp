#include <kestrova/realtime/RealtimeStore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class RealtimeStoreTest : public testing::Test {
protected:
  std::shared_ptr<std::string> start(Task<void> task) {
    auto valued = [](Task<void> inner) -> Task<std::optional<std::string>> {
      co_await std::move(inner);
      co_return "ok";
    };
    return start(valued(std::move(task)));
  }
  /// "waiting", the value, "nothing", or the error's text.
  std::shared_ptr<std::string> start(Task<std::optional<std::string>> task) {
    auto outcome = std::make_shared<std::string>("waiting");
    auto note = [](Task<std::optional<std::string>> inner,
                   std::shared_ptr<std::string> result) -> Task<void> {
      try {
        const auto value = co_await std::move(inner);
        *result = value.value_or("nothing");
      } catch (const RealtimeStoreError& error) {
        *result = error.what();
      }
    };
    spawn(note(std::move(task), outcome));
    platform.pump();
    return outcome;
  }
  template <class T>
  std::string run(Task<T> task) {
    return *start(std::move(task));
  }
  RealtimeStore::Listener listener(const std::string& name) {
    return makeStoreListener([this, name](const std::string& key,
                                          const std::optional<std::string>& value,
                                          const std::string& updatedBy) {
      heard.push_back(name + ' ' + key + '=' + value.value_or("nothing") + " by " + updatedBy);
    });
  }
  void change(Dictionary data) { test.notify("realtimeStoreValueChanged", std::move(data)); }
  ScriptedService& service() { return *platform.service; }

  TestPlatform platform;
  TestMeeting test = TestMeeting::joined(platform, {.mode = Mode::SIGNALLING_ONLY});
  std::shared_ptr<RealtimeStore> store = test.meeting->realtimeStore();
  std::vector<std::string> heard;
};

TEST_F(RealtimeStoreTest, isRefusedOutsideOfTheMeeting) {
  const auto one = listener("one");
  const auto all = [&](const std::shared_ptr<RealtimeStore>& of, const char* text) {
    EXPECT_EQ(run(of->set("", "")), text);
    EXPECT_EQ(run(of->get("k")), text);
    EXPECT_EQ(run(of->observe("k", one)), text);
    EXPECT_EQ(run(of->stopObserving("k", one)), text);
  };
  TestMeeting fresh(platform);
  all(fresh.meeting->realtimeStore(), "You must join the meeting before using Realtime Store.");
  EXPECT_EQ(fresh.listener->errors.at(3).message(),
            "You must join the meeting before calling the stopObserving() method.");
  test.socket().drop();
  platform.pump();
  all(store, "The meeting is reconnecting. Please try again once it reconnects.");
  service().withholdOnce("join");
  test.socket().open();
  platform.advance(100ms);
  test.decide("allowed");
  all(store, "The meeting is reconnecting. Please try again once it reconnects.");
  service().answerLate("join", ScriptedService::ok());
  platform.pump();
  test.meeting->leave();
  all(store, "You have already left the meeting.");
}

TEST_F(RealtimeStoreTest, aValueHasTheSizeItsBytesHave) {
  EXPECT_EQ(run(store->set("k", std::string(1024, 'x'))), "ok");
  EXPECT_EQ(service().last("realtimeStoreSet").at("key"), Value("k"));
  EXPECT_EQ(run(store->set("k", std::nullopt)), "ok");
  EXPECT_EQ(service().last("realtimeStoreSet"), (Dictionary{{"key", "k"}, {"value", nullptr}}));
  std::string wide;
  for (int i = 0; i < 400; ++i) wide += "\xE2\x82\xAC";
  const auto sent = service().count("realtimeStoreSet");
  const char* tooLarge = "Payload too large: Maximum allowed size is 1024 bytes (1KB).";
  EXPECT_EQ(run(store->set("k", std::string(1025, 'x'))), tooLarge);
  EXPECT_EQ(run(store->set("k", wide)), tooLarge);
  EXPECT_EQ(run(store->set("", wide)), "Invalid key parameter");
  EXPECT_EQ(service().count("realtimeStoreSet"), sent);
  service().refuse("realtimeStoreSet", 403, "no");
  EXPECT_EQ(run(store->set("k", "v")), " [ ErrorCode: 403, Message: no ] ");
}

TEST_F(RealtimeStoreTest, whatIsReadIsTextOrNothing) {
  const std::pair<Value, const char*> rows[] = {
      {{{"data", {{"status", "OK"}, {"value", "v"}}}}, "v"},
      {{{"data", {{"status", "ok"}, {"value", true}}}}, "true"},
      {{{"data", {{"status", "ok"}, {"value", 12}}}}, "12"},
      {{{"data", {{"status", "ok"}, {"value", 1.5}}}}, "1.5"},
      {{{"data", {{"status", "ok"}, {"value", nullptr}}}}, "nothing"},
      {{{"data", {{"status", "ok"}, {"value", List()}}}}, "nothing"},
      {{{"data", {{"status", "ok"}}}}, "nothing"},
      {{{"ok", true}, {"data", {{"value", "v"}}}}, "v"},
      {{{"ok", true}}, "nothing"},
      {{{"ok", false}, {"data", {{"value", "v"}}}}, "Failed to get value"},
      {{{"data", {{"error", "first"}, {"message", "second"}}}}, "first"},
      {{{"data", {{"message", "second"}}}}, "second"},
      {Dictionary(), "Failed to get value"},
  };
  for (const auto& [answer, expected] : rows) {
    service().respond("realtimeStoreGet", [&answer](const Dictionary&) { return answer; });
    EXPECT_EQ(run(store->get("k")), expected) << answer;
  }
}

TEST_F(RealtimeStoreTest, oneRequestServesAllObserversOfAKey) {
  const auto one = listener("one");
  const auto two = listener("two");
  service().withhold("realtimeStoreObserve");
  const auto first = start(store->observe("k", one));
  EXPECT_EQ(run(store->observe("k", two)), "ok");
  EXPECT_EQ(service().count("realtimeStoreObserve"), 1);
  change({{"key", "k"}, {"value", "0"}, {"updatedBy", "bob"}});
  service().answerLate("realtimeStoreObserve", ScriptedService::ok());
  platform.pump();
  EXPECT_EQ(*first, "ok");
  change({{"key", "k"}, {"value", "1"}, {"updatedBy", "bob"}});
  change({{"key", "k"}, {"updatedBy", "me"}});
  change({{"key", "k"}, {"value", 5}, {"updatedBy", "me"}});
  change({{"key", "k"}, {"value", "2"}});
  change({{"value", "2"}, {"updatedBy", "me"}});
  change({{"key", "other"}, {"value", "2"}, {"updatedBy", "me"}});
  EXPECT_THAT(heard,
              testing::UnorderedElementsAre("two k=0 by bob", "one k=1 by bob", "two k=1 by bob",
                                            "one k=nothing by me", "two k=nothing by me",
                                            "one k=nothing by me", "two k=nothing by me"));
}

TEST_F(RealtimeStoreTest, whatTheServiceRefusesIsTheFirstObserversFailure) {
  const auto one = listener("one");
  const auto two = listener("two");
  service().withhold("realtimeStoreObserve");
  const auto first = start(store->observe("k", one));
  EXPECT_EQ(run(store->observe("k", two)), "ok");
  service().answerLate("realtimeStoreObserve", {{"data", {{"status", "error"}}}});
  platform.pump();
  EXPECT_EQ(*first, "Failed to observe key");
  change({{"key", "k"}, {"value", "1"}, {"updatedBy", "bob"}});
  EXPECT_THAT(heard, ElementsAre("two k=1 by bob"));
  EXPECT_EQ(run(store->observe("", one)), "Invalid key parameter");
  EXPECT_TRUE(platform.traces.has("Error in observe() - Invalid key"));
  EXPECT_EQ(run(store->observe("k2", nullptr)), "No listener was given");
}

TEST_F(RealtimeStoreTest, theLastObserverToGoTellsTheService) {
  const auto one = listener("one");
  const auto two = listener("two");
  run(store->observe("k", one));
  run(store->observe("k", two));
  EXPECT_EQ(run(store->stopObserving("k", one)), "ok");
  EXPECT_EQ(service().count("realtimeStoreStopObserve"), 0);
  service().withhold("realtimeStoreStopObserve");
  const auto last = start(store->stopObserving("k", two));
  EXPECT_EQ(run(store->stopObserving("k", two)), "ok") << "meanwhile";
  EXPECT_EQ(service().count("realtimeStoreStopObserve"), 1);
  service().answerLate("realtimeStoreStopObserve", Dictionary());
  platform.pump();
  EXPECT_EQ(*last, "Failed to stop observing key");
  change({{"key", "k"}, {"value", "1"}, {"updatedBy", "bob"}});
  EXPECT_THAT(heard, IsEmpty());
}

TEST_F(RealtimeStoreTest, whoIsBeingAddedKeepsTheKeyObserved) {
  const auto one = listener("one");
  const auto two = listener("two");
  service().withhold("realtimeStoreObserve");
  const auto first = start(store->observe("k", one));
  run(store->observe("k", two));
  EXPECT_EQ(run(store->stopObserving("k", two)), "ok");
  EXPECT_EQ(service().count("realtimeStoreStopObserve"), 0);
  service().answerLate("realtimeStoreObserve", ScriptedService::ok());
  platform.pump();
  change({{"key", "k"}, {"value", "1"}, {"updatedBy", "bob"}});
  EXPECT_THAT(heard, ElementsAre("one k=1 by bob"));
}

TEST_F(RealtimeStoreTest, whoStopsMeanwhileIsNotAdded) {
  const auto one = listener("one");
  service().withhold("realtimeStoreObserve");
  const auto first = start(store->observe("k", one));
  EXPECT_EQ(run(store->stopObserving("k", one)), "ok");
  service().answerLate("realtimeStoreObserve", ScriptedService::ok());
  platform.pump();
  EXPECT_EQ(*first, "ok");
  EXPECT_EQ(service().count("realtimeStoreStopObserve"), 1);
  change({{"key", "k"}, {"value", "1"}, {"updatedBy", "bob"}});
  EXPECT_THAT(heard, IsEmpty());
}

TEST_F(RealtimeStoreTest, aChangeRightBehindTheAgreementIsHeard) {
  const auto one = listener("one");
  service().withhold("realtimeStoreObserve");
  const auto first = start(store->observe("k", one));
  service().answerLate("realtimeStoreObserve", ScriptedService::ok());
  change({{"key", "k"}, {"value", "1"}, {"updatedBy", "bob"}});
  EXPECT_THAT(heard, ElementsAre("one k=1 by bob"));
}

TEST_F(RealtimeStoreTest, observersStayThroughAReturnAndAMove) {
  const auto one = listener("one");
  run(store->observe("k", one));
  auto gone = listener("gone");
  run(store->observe("other", gone));
  gone.reset();
  service().forgetRequests();
  test.socket().drop();
  platform.pump();
  test.socket().open();
  platform.advance(100ms);
  test.decide("allowed");
  EXPECT_EQ(service().count("realtimeStoreObserve"), 1);
  EXPECT_EQ(service().last("realtimeStoreObserve"), (Dictionary{{"key", "k"}}));
  test.notify("entryResponded", {{"sessionId", "session"},
                                 {"id", "me"},
                                 {"decision", "allowed"},
                                 {"switchingRoomId", "elsewhere"}});
  EXPECT_EQ(service().count("realtimeStoreObserve"), 2);
}

}  // namespace
}  // namespace kestrova::test
