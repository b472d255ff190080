#pragma once

#include <kestrova/session/Kestrova.h>

#include "RecordingListeners.h"
#include "TestPlatform.h"
#include <memory>
#include <string>

namespace kestrova::test {

/// A meeting on the scripted platform, and whoever listens to it.
///
///     auto test = TestMeeting::joined(platform, {.micEnabled = true});
///     test.socket().notify("peerClosed", {{"peerId", "bob"}});
class TestMeeting {
public:
  static constexpr const char* localId = "me";

  /// A meeting that does nothing yet: of the room "room", for the participant "me", called Ada,
  /// where the options say nothing else.
  explicit TestMeeting(TestPlatform& platform, InitMeetingOptions options = {});
  /// The same, after the whole join.
  static TestMeeting joined(TestPlatform& platform, InitMeetingOptions options = {});
  /// The same, asking for entry.
  static TestMeeting entering(TestPlatform& platform, InitMeetingOptions options = {});

  // ---- The steps of the join
  void lookUp();
  /// The socket stands, and the entry was asked for.
  void reachSocket();
  void decide(const std::string& decision, const std::string& id = localId);

  ScriptedSocket& socket() { return *platform->service->socket(); }
  /// Sends one notification and lets everything come of it.
  void notify(const std::string& method, Value data);
  /// Somebody else comes in.
  std::shared_ptr<Participant> addPeer(const std::string& id, Dictionary more = {});
  /// A stream of theirs is announced.
  std::shared_ptr<PushedEvent> announce(const std::string& consumerId, const std::string& peerId,
                                        const std::string& kind, bool share = false);

  TestPlatform* platform;
  std::shared_ptr<Meeting> meeting;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
  std::shared_ptr<RecordingParticipantListener> localListener =
      std::make_shared<RecordingParticipantListener>();
};

}  // namespace kestrova::test
