#include <kestrova/inspector/MeetingRecord.h>
#include <kestrova/platform/Values.h>

#include <gmock/gmock.h>

#include <limits>

namespace kestrova::inspector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Ms start = 1'700'000'000'000;
constexpr Ms minute = 60'000;

class MeetingRecordTest : public testing::Test, public RecordReader {
protected:
  bool isReading() const override { return reading; }
  void changed(std::string_view event, const Dictionary& data) override {
    told.push_back(std::string(event) + " " + boost::json::serialize(data));
  }
  std::vector<std::string> take() { return std::exchange(told, {}); }

  Dictionary snapshot(Ms now) { return parseDictionary(record.snapshot(now)); }
  /// The ids of a list in a snapshot, or what else its entries are known by.
  static std::vector<std::string> names(const Dictionary& object, const char* key,
                                        const char* name = "id") {
    std::vector<std::string> all;
    for (const auto& each : object.at(key).as_array()) all.emplace_back(each.at(name).as_string());
    return all;
  }
  void come(const std::string& id, Ms when = start) {
    record.participantCame({.id = id, .name = id, .mode = "SEND_AND_RECV", .joinedAt = when});
  }
  void begin(const std::string& participantId, const std::string& id) {
    record.streamStarted(participantId, {.id = id, .kind = "video", .startedAt = start});
  }

  bool reading = true;
  std::vector<std::string> told;
  MeetingRecord record{*this};
};

TEST_F(MeetingRecordTest, ASnapshotHasEverythingInItsShape) {
  record.meetingIs({.id = "room", .localParticipantId = "me", .state = "JOINED"});
  record.participantCame(
      {.id = "me", .name = "Ada", .local = true, .mode = "SEND_AND_RECV", .joinedAt = start});
  record.streamStarted("me", {.id = "s", .kind = "video", .startedAt = start});
  record.sampled("s",
                 {.t = start + 2000,
                  .bitrateKbps = 812.34567,
                  .framesPerSecond = 30,
                  .width = 1280,
                  .height = 720,
                  .roundTripMs = std::numeric_limits<double>::quiet_NaN(),
                  .lossPercent = 0.0,
                  .freezes = 2},
                 "VP8");
  record.marked({.t = start, .kind = "state", .text = "JOINED"});
  record.marked({.t = start,
                 .kind = "error",
                 .text = "\"bad\"",
                 .participantId = "me",
                 .streamId = "s",
                 .code = 4002});
  record.spanStarted({.id = "a", .name = "Joining", .start = start, .category = "TELEMETRY"});
  record.spanStarted({.id = "b", .parentId = "a", .name = "Asking", .start = start + 1});
  record.spanEnded({.id = "b", .name = "Asking", .t = start + 9, .durationMs = 8, .message = "ok"});
  record.eventHappened({.t = start + 2, .name = "e", .success = true, .attributes = {{"k", "v"}}});
  EXPECT_EQ(
      record.snapshot(start + 3000),
      R"({"format":"kestrova-inspector","version":1,"now":1700000003000,)"
      R"("meeting":{"id":"room","localParticipantId":"me","state":"JOINED"},)"
      R"("participants":[{"id":"me","name":"Ada","local":true,"mode":"SEND_AND_RECV",)"
      R"("joinedAt":1700000000000,"leftAt":null,"streams":[{"id":"s","kind":"video",)"
      R"("startedAt":1700000000000,"endedAt":null,"state":"ACTIVE","codec":"VP8",)"
      R"("samples":[[1700000002000,8.12346E2,30,1280,720,null,0,null,null,2]]}]}],)"
      R"("marks":[{"t":1700000000000,"kind":"state","text":"JOINED"},)"
      R"({"t":1700000000000,"kind":"error","text":"\"bad\"","participantId":"me","streamId":"s",)"
      R"("code":4002}],)"
      R"("spans":[{"id":"a","parentId":null,"name":"Joining","start":1700000000000,)"
      R"("durationMs":null,"success":null,"message":"","attributes":{},"category":"TELEMETRY"},)"
      R"({"id":"b","parentId":"a","name":"Asking","start":1700000000001,"durationMs":8,)"
      R"("success":true,"message":"ok","attributes":{},"category":""}],)"
      R"("events":[{"t":1700000000002,"name":"e","parentId":null,"category":"","success":true,)"
      R"("attributes":{"k":"v"}}]})");
}

TEST_F(MeetingRecordTest, TellsEachChangeOnceAndTheSamplesOfATickTogether) {
  come("bob");
  begin("bob", "s");
  begin("bob", "s");
  begin("bob", "t");
  EXPECT_EQ(take().size(), 3U);
  record.sampled("s", {.t = start, .bitrateKbps = 5}, "");
  record.sampled("t", {.t = start, .level = 0.25}, "");
  EXPECT_THAT(take(), IsEmpty());
  record.sampled("s", {.t = start + 2000}, "");  // the next tick
  EXPECT_THAT(take(), ElementsAre(R"(samples {"t":1700000000000,"streams":{)"
                                  R"("s":[5,null,null,null,null,null,null,null,null],)"
                                  R"("t":[null,null,null,null,null,null,null,2.5E-1,null]}})"));
  // A page that opens now finds it in its snapshot; the others are told before.
  record.snapshot(start + 2000);
  ASSERT_EQ(told.size(), 1U);
  EXPECT_TRUE(take()[0].starts_with(R"(samples {"t":1700000002000,"streams":{"s")"));
  record.tellSamples();
  record.streamStateChanged("s", "ACTIVE");
  record.modeChanged("bob", "SEND_AND_RECV");
  record.modeChanged("bob", "RECV_ONLY");
  record.sampled("s", {.t = start + 4000}, "H264");
  EXPECT_THAT(take(), ElementsAre(testing::HasSubstr("RECV_ONLY"), testing::HasSubstr("\"H264\"")));
  reading = false;
  come("eve");
  record.sampled("t", {.t = start + 4000}, "");
  record.tellSamples();
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(MeetingRecordTest, StreamsEndWithTheirParticipantWhoMayComeBack) {
  come("bob");
  begin("bob", "s");
  take();
  record.participantLeft("bob", start + 5);
  EXPECT_THAT(take(), ElementsAre(testing::HasSubstr("\"endedAt\":1700000000005"),
                                  testing::HasSubstr("\"leftAt\":1700000000005")));
  record.participantLeft("bob", start + 6);
  record.streamEnded("s", start + 7);
  record.sampled("s", {.t = start + 7}, "");
  come("bob", start + 8);
  EXPECT_THAT(take(), ElementsAre(testing::HasSubstr("\"leftAt\":null")));
  const auto bob = snapshot(start + 9).at("participants").at(0).as_object();
  EXPECT_EQ(bob.at("streams").at(0).at("samples").as_array().size(), 0U);
  EXPECT_EQ(bob.at("streams").at(0).at("endedAt").as_int64(), start + 5);
}

TEST_F(MeetingRecordTest, WhatNamesSomebodyUnknownIsLeftOut) {
  begin("nobody", "s");
  record.sampled("s", {.t = start}, "VP8");
  record.streamEnded("s", start);
  record.streamStateChanged("s", "STUCK");
  record.participantLeft("nobody", start);
  record.modeChanged("nobody", "RECV_ONLY");
  record.tellSamples();
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(MeetingRecordTest, KeepsTwoMinutesAndWhoIsThere) {
  come("bob");
  come("gone");
  begin("bob", "s");
  begin("bob", "ended");
  record.streamEnded("ended", start + minute);
  record.participantLeft("gone", start + minute);
  record.marked({.t = start, .kind = "state", .text = "first"});
  record.marked({.t = start + 2 * minute, .kind = "state", .text = "second"});
  record.spanStarted({.id = "long", .name = "long", .start = start});
  record.spanStarted({.id = "short", .name = "short", .start = start});
  record.spanEnded({.id = "short", .t = start + 10, .durationMs = 10});
  record.eventHappened({.t = start, .name = "early"});
  for (Ms t = start; t <= start + 3 * minute; t += 2000)
    record.sampled("s", {.t = t, .bitrateKbps = 1}, "");

  const auto seen = snapshot(start + 3 * minute + 1);
  EXPECT_THAT(names(seen, "participants"), ElementsAre("bob"));
  const auto& bob = seen.at("participants").at(0).as_object();
  EXPECT_THAT(names(bob, "streams"), ElementsAre("s"));
  const auto& samples = bob.at("streams").at(0).at("samples").as_array();
  EXPECT_EQ(samples.size(), 60U);
  EXPECT_EQ(samples[0].at(0).as_int64(), start + minute + 2000);
  EXPECT_THAT(names(seen, "marks", "text"), ElementsAre("second"));
  EXPECT_THAT(names(seen, "spans"), ElementsAre("long"));
  EXPECT_THAT(names(seen, "events", "name"), IsEmpty());
}

TEST_F(MeetingRecordTest, IsBoundedWhateverComes) {
  reading = false;
  constexpr int many = 7000;
  come("bob");
  for (int i = 0; i < many; ++i) {
    const auto id = std::to_string(i);
    come(id);
    begin(id, "s" + id);
    begin("bob", "b" + id);
    record.streamEnded("b" + id, start);
    record.participantLeft(id, start);
    record.marked({.t = start, .kind = "state", .text = "x"});
    record.spanStarted({.id = id, .name = "span", .start = start});
    record.eventHappened({.t = start, .name = id});
  }
  const auto seen = snapshot(start);
  EXPECT_EQ(seen.at("participants").as_array().size(), 501U);
  EXPECT_EQ(names(seen, "participants")[0], "bob") << "who is there stays";
  EXPECT_EQ(seen.at("marks").as_array().size(), 5000U);
  EXPECT_EQ(seen.at("spans").as_array().size(), 5000U);
  EXPECT_EQ(names(seen, "events", "name").front(), "2000");

  // Of a span that is forgotten the end is still heard.
  reading = true;
  record.spanEnded(
      {.id = "0", .name = "span", .t = start + 30, .durationMs = 30, .success = false});
  EXPECT_THAT(take(), ElementsAre(testing::HasSubstr(R"("start":1700000000000,"durationMs":30)")));
}

TEST_F(MeetingRecordTest, LongTextsAreCutAndManyTakeNoMoreThanTheirShare) {
  std::string text(1999, 'x');
  text += "äöü";
  record.eventHappened({.t = start, .name = "cut", .attributes = {{"body", text}}});
  const auto cut = snapshot(start).at("events").at(0).at("attributes").at("body").as_string();
  EXPECT_EQ(std::string(cut), std::string(1999, 'x') + "…") << "not within a letter";
  TraceAttributes wide;
  for (int i = 0; i < 20; ++i) wide["k" + std::to_string(i)] = std::string(5000, 'y');
  for (int i = 0; i < 3000; ++i) {
    record.eventHappened({.t = start, .name = "wide", .attributes = wide});
    record.spanStarted({.id = std::to_string(i), .name = "w", .start = start, .attributes = wide});
  }
  EXPECT_LT(record.snapshot(start).size(), 20U * 1024 * 1024);
}

}  // namespace
}  // namespace kestrova::inspector
