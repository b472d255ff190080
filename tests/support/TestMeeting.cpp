#include "TestMeeting.h"

namespace kestrova::test {

TestMeeting::TestMeeting(TestPlatform& p, InitMeetingOptions options) : platform(&p) {
  if (options.meetingId.empty()) options.meetingId = "room";
  if (options.participantId.empty()) options.participantId = localId;
  if (options.participantName.empty()) options.participantName = "Ada";
  Kestrova::config("secret-token");
  meeting = Kestrova::initMeeting(std::move(options));
  meeting->addEventListener(listener);
  meeting->localParticipant()->addEventListener(localListener);
}

TestMeeting TestMeeting::entering(TestPlatform& platform, InitMeetingOptions options) {
  TestMeeting test(platform, std::move(options));
  test.lookUp();
  test.reachSocket();
  return test;
}

TestMeeting TestMeeting::joined(TestPlatform& platform, InitMeetingOptions options) {
  auto test = entering(platform, std::move(options));
  test.decide("allowed");
  return test;
}

void TestMeeting::lookUp() {
  meeting->join();
  platform->pump();
}

void TestMeeting::reachSocket() {
  socket().open();
  platform->advance(std::chrono::milliseconds(100));
}

void TestMeeting::decide(const std::string& decision, const std::string& id) {
  notify("entryResponded", {{"sessionId", "session"}, {"id", id}, {"decision", decision}});
}

void TestMeeting::notify(const std::string& method, Value data) {
  socket().notify(method, std::move(data));
  platform->pump();
}

std::shared_ptr<Participant> TestMeeting::addPeer(const std::string& id, Dictionary more) {
  more["id"] = id;
  if (!more.contains("displayName")) more["displayName"] = id;
  notify("newPeer", std::move(more));
  if (!meeting) return nullptr;
  const auto all = meeting->participants();
  const auto found = all.find(id);
  return found == all.end() ? nullptr : found->second;
}

std::shared_ptr<PushedEvent> TestMeeting::announce(const std::string& consumerId,
                                                   const std::string& peerId,
                                                   const std::string& kind, bool share) {
  auto pushed = socket().push("newConsumer", {{"method", "newConsumer"},
                                              {"data",
                                               {{"id", consumerId},
                                                {"kind", kind},
                                                {"producerId", "p-" + consumerId},
                                                {"rtpParameters", Dictionary()},
                                                {"appData", {{"peerId", peerId}, {"share", share}}},
                                                {"peerId", peerId}}}});
  platform->pump();
  return pushed;
}

}  // namespace kestrova::test
