#include <kestrova/platform/NotificationCenter.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using Lines = std::vector<std::string>;

TEST(DispatchTest, anErrorRightBeforeTheEndIsTold) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  test.socket().notify("error", {{"code", 4005}});
  test.socket().notify("close", {{"reason", {{"code", 1011}}}});
  platform.pump();
  EXPECT_THAT(test.listener->lines(), testing::Contains("onError 4005 DUPLICATE_PARTICIPANT"));
  EXPECT_THAT(test.listener->lines(), testing::Contains("onMeetingLeft duplicateParticipant"));
}

TEST(DispatchTest, everyEventOfTheRoadReadsItsPayload) {
  struct Row {
    const char* method;
    Value data;
    Lines heard;
  };
  const Dictionary bob{{"peerId", "bob"}};
  const Row rows[] = {
      {"newPeer", {{"id", "eve"}}, {"onParticipantJoined eve"}},
      {"newPeer", {{"id", ""}}, {}},
      {"newPeer", {{"id", 5}}, {}},
      {"newPeer", "rubbish", {}},
      {"peerClosed",
       {{"peerId", "bob"}, {"reason", {{"code", 1002}}}},
       {"onParticipantLeft bob", "onParticipantLeft bob removePeer"}},
      {"peerClosed", bob, {"onParticipantLeft bob", "onParticipantLeft bob unknown"}},
      {"peerClosed",
       {{"peerId", "bob"}, {"reason", {{"code", 1050}}}},
       {"onParticipantLeft bob", "onParticipantLeft bob unknown"}},
      {"peerClosed", {{"peerId", "nobody"}}, {}},
      {"peerClosed", Dictionary(), {}},
      {"recordingStarted", nullptr, {"onRecordingStarted"}},
      {"livestreamStopped", Dictionary(), {"onLivestreamStopped"}},
      {"activeSpeaker", bob, {"onSpeakerChanged bob"}},
      {"activeSpeaker", {{"peerId", nullptr}}, {"onSpeakerChanged nobody"}},
      {"error", {{"code", 4001}}, {"onError 4001 INVALID_API_KEY"}},
      {"error", {{"code", 424242}}, {"onError 4000 UNKNOWN_ERROR"}},
      {"error", {{"code", "4001"}}, {"onError 4000 UNKNOWN_ERROR"}},
      {"recordingStateChanged",
       {{"status", "RECORDING_STARTING"}},
       {"onRecordingStateChanged RECORDING_STARTING"}},
      {"recordingStateChanged", {{"status", "recording_starting"}}, {}},
      {"recordingStateChanged", Dictionary(), {}},
      {"livestreamStateChanged",
       {{"status", "LIVESTREAM_STOPPING"}},
       {"onLivestreamStateChanged LIVESTREAM_STOPPING"}},
      {"transcriptionStateChanged",
       {{"status", "TRANSCRIPTION_STARTED"}},
       {"onTranscriptionStateChanged TRANSCRIPTION_STARTED"}},
      {"transcriptionText",
       {{"participantId", "bob"}, {"text", "hello"}, {"timestamp", "late"}},
       {"onTranscriptionText bob hello"}},
      {"hlsStateChanged",
       {{"status", "HLS_STARTED"}, {"playbackHlsUrl", "u"}},
       {"onHlsStateChanged HLS_STARTED u"}},
      {"hlsPlayableStateChanged",
       {{"isPlayable", true}, {"playbackHlsUrl", 5}},
       {"onHlsStateChanged HLS_PLAYABLE no url"}},
      {"hlsPlayableStateChanged", {{"isPlayable", 1}}, {"onHlsStateChanged HLS_PLAYABLE no url"}},
      {"hlsPlayableStateChanged",
       {{"isPlayable", "TRUE"}},
       {"onHlsStateChanged HLS_PLAYABLE no url"}},
      {"hlsPlayableStateChanged", {{"isPlayable", false}}, {}},
      {"hlsPlayableStateChanged", {{"isPlayable", List()}}, {}},
      {"whiteboardStarted",
       {{"url", "https://w.test/x"}},
       {"onWhiteboardStarted https://w.test/x"}},
      {"whiteboardStarted", {{"url", "not a url"}}, {}},
      {"whiteboardStarted", Dictionary(), {}},
      {"whiteboardStopped", Dictionary(), {"onWhiteboardStopped"}},
      {"pinStateChanged",
       {{"peerId", "bob"}, {"state", {{"cam", true}}}, {"pinnedBy", "me"}},
       {"onPinStateChanged bob CAM"}},
      {"pinStateChanged", {{"peerId", "bob"}, {"state", "cam"}}, {}},
      {"peerModeChanged",
       {{"peerId", "bob"}, {"mode", "VIEWER"}},
       {"onParticipantModeChanged bob VIEWER"}},
      {"peerModeChanged", bob, {"onParticipantModeChanged bob CONFERENCE"}},
      {"peerModeChanged", {{"peerId", "bob"}, {"mode", "viewer"}}, {}},
      {"peerModeChanged", {{"mode", "VIEWER"}}, {}},
      {"consumerClosed", {{"consumerId", "unknown"}}, {}},
      {"consumerPaused", {{"consumerId", 5}}, {}},
      {"consumerLayersChanged", Dictionary(), {}},
      {"notification", Dictionary(), {}},
      {"enableMic", {{"peerId", "me"}, {"byPeerId", "bob"}}, {"onMicRequested bob"}},
      {"enableMic", {{"byPeerId", 5}}, {"onMicRequested nobody"}},
      {"enableWebcam", Dictionary(), {"onWebcamRequested nobody"}},
      {"disableMic", bob, {}},
      {"disableWebcam", "rubbish", {}},
      {"entryRequested", {{"id", "eve"}, {"name", "Eve"}}, {"onEntryRequested eve Eve"}},
      {"entryRequested", {{"id", "eve"}}, {"onEntryRequested eve "}},
      {"entryRequested", {{"name", "Eve"}}, {}},
      {"entryResponded", {{"id", "eve"}, {"decision", "denied"}}, {}},
      {"entryResponded",
       {{"sessionId", "s"}, {"id", "eve"}, {"decision", "denied"}},
       {"onEntryResponded eve denied"}},
      {"consumerPausedSubManager", bob, {}},
      {"consumerResumedSubManager", {{"peerId", 5}}, {}},
      {"unsupportedCodecAdded", {{"codec", 5}}, {}},
      {"restartIce", "rubbish", {}},
      {"addCharacter", "rubbish", {}},
      {"agentMetrics", List(), {}},
      {"pubsubMessage", 5, {}},
      {"realtimeStoreValueChanged", nullptr, {}},
      {"unsupportedCodecAdded", {{"codec", "video/xyz"}}, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.method + (" " + boost::json::serialize(row.data)));
    TestPlatform platform;
    auto test = TestMeeting::joined(platform);
    test.addPeer("bob");
    test.listener->take();
    test.notify(row.method, row.data);
    EXPECT_EQ(test.listener->lines(), row.heard);
  }
}

TEST(DispatchTest, onlyAWholeRestartReachesTheTransport) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  const auto id = platform.media->details.at(0).id;
  const Dictionary parameters{{"usernameFragment", "u"}, {"password", "p"}};
  for (const Dictionary& data :
       {Dictionary{{"transportId", id}}, Dictionary{{"iceParameters", parameters}},
        Dictionary{{"transportId", id}, {"iceParameters", "u"}},
        Dictionary{{"transportId", "other"}, {"iceParameters", parameters}}})
    test.notify("restartIce", data);
  EXPECT_EQ(platform.service->count("iceRestarted"), 0);
  test.notify("restartIce", {{"transportId", id}, {"iceParameters", parameters}});
  EXPECT_EQ(platform.service->last("iceRestarted"), (Dictionary{{"transportId", id}}));
  EXPECT_EQ(platform.journal.count(id + ".restartICE"), 1);
}

TEST(DispatchTest, theStatusOfTheServicesIsRemembered) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  test.notify("hlsStateChanged", {{"status", "HLS_STARTING"}, {"downstreamUrl", "d"}});
  test.notify("recordingStateChanged", {{"status", "RECORDING_STARTED"}});
  test.notify("livestreamStateChanged", {{"status", "LIVESTREAM_STARTED"}});
  test.notify("transcriptionStateChanged", {{"status", "TRANSCRIPTION_STARTING"}});
  EXPECT_EQ(test.meeting->hlsState(), HLSState::HLS_STARTING);
  EXPECT_EQ(test.meeting->hlsUrls()->downstreamUrl, "d");
  EXPECT_EQ(test.meeting->recordingState(), RecordingState::RECORDING_STARTED);
  EXPECT_EQ(test.meeting->liveStreamState(), LiveStreamState::LIVESTREAM_STARTED);
  EXPECT_EQ(test.meeting->transcriptionState(), TranscriptionState::TRANSCRIPTION_STARTING);
}

TEST(DispatchTest, callsOfTheDeviceReachTheListeners) {
  TestPlatform platform;
  TestMeeting test(platform);
  auto& center = NotificationCenter::defaultCenter();
  for (const char* event : {"onExternalCallRinging", "onExternalCallHangup", "onSomethingElse"})
    center.post("ExternalCallDetected", {{"event", event}, {"callType", "incoming"}});
  center.post("ExternalCallDetected", {{"event", "onExternalCallRinging"}});
  platform.pump();
  EXPECT_EQ(test.listener->lines(),
            (Lines{"onExternalCallRinging incoming", "onExternalCallHangup incoming"}));
  test.meeting.reset();
  center.post("ExternalCallDetected", {{"event", "onExternalCallHangup"}, {"callType", "x"}});
  platform.pump();
  EXPECT_EQ(test.listener->lines().size(), 2u);
}

TEST(DispatchTest, aFailureThatTheServiceTellsCarriesItsWords) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  test.notify("error", {{"code", 4001}, {"message", "the key was withdrawn"}, {"error", "x"}});
  test.notify("error", {{"code", 4001}, {"error", "withdrawn"}});
  test.notify("error", {{"code", 4001}, {"message", List()}});
  ASSERT_EQ(test.listener->errors.size(), 3u);
  EXPECT_EQ(test.listener->errors[0].cause(), "the key was withdrawn");
  EXPECT_EQ(test.listener->errors[1].cause(), "withdrawn");
  EXPECT_EQ(test.listener->errors[2].cause(), "");
}

}  // namespace
}  // namespace kestrova::test
