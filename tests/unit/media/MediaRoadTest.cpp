#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/Transports.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto hangs = ScriptedCapture::Behaviour::hangs;
constexpr auto fails = ScriptedCapture::Behaviour::fails;

class MediaTest : public testing::Test {
protected:
  static std::shared_ptr<CustomRTCMediaStream> camera(CustomStreamFields fields) {
    if (!fields.videoTrack) fields.videoTrack = std::make_shared<ScriptedVideoTrack>("mine");
    return std::make_shared<CustomRTCMediaStream>(std::move(fields));
  }
  TestMeeting joinedWith(CustomStreamFields fields) {
    return TestMeeting::joined(
        platform, {.webcamEnabled = true, .customCameraVideoStream = camera(std::move(fields))});
  }
  TestPlatform platform;
};

// ---- Device and transports ---------------------------------------------------------------------

TEST_F(MediaTest, loadsTheDeviceThenMakesSendBeforeReceive) {
  platform.service->answer(
      "getRouterRtpCapabilities",
      {{"codecs", List()},
       {"headerExtensions", List{Dictionary{{"uri", "urn:3gpp:video-orientation"}},
                                 Dictionary{{"uri", "urn:ietf:mid"}}}}});
  const auto test =
      TestMeeting::joined(platform, {.preferredProtocol = PreferredProtocol::TCP_ONLY});
  EXPECT_THAT(platform.journal.lines(),
              ElementsAre("device.load", "device.createSendTransport send",
                          "device.createReceiveTransport receive"));
  EXPECT_EQ(parseDictionary(platform.media->loadedWith).at("headerExtensions"),
            Value(List{Dictionary{{"uri", "urn:ietf:mid"}}}));
  EXPECT_EQ(
      platform.service->last("createWebRtcTransport"),
      (Dictionary{{"preferredProtocol", "TCP_ONLY"}, {"producing", false}, {"consuming", true}}));
  const auto& details = platform.media->details.front();
  EXPECT_EQ(details.iceCandidates, R"([{"ip":"127.0.0.1"}])");
  EXPECT_EQ(details.iceServers + details.sctpParameters + details.appData, "");
  EXPECT_EQ(details.iceTransportPolicy, ICETransportPolicy::all);
}

TEST_F(MediaTest, twoSetupsAtOnceMakeOneOfEachTransport) {
  platform.service->withhold("createWebRtcTransport");
  const auto context = std::make_shared<RoomContext>(RoomClientOptions{});
  const auto registry = std::make_shared<MediaRegistry>(context->stateQueue);
  const auto transports = std::make_shared<Transports>(
      context, registry, std::make_shared<TransportMonitor>(context, registry));
  context->socketRequestHandler->connect("https://signal.test", "/socket.io", openSpan("x"));
  platform.service->socket()->open();
  platform.pump();
  for (int i = 0; i < 2; ++i)
    spawn(transports->setupDeviceAndTransports(true, std::nullopt, true, true,
                                               context->connections->current()));
  platform.pump();
  EXPECT_EQ(platform.service->count("createWebRtcTransport"), 2) << "one of each role";
  Dictionary details{
      {"iceParameters", Dictionary()}, {"iceCandidates", List()}, {"dtlsParameters", Dictionary()}};
  while (platform.service->answerLate("createWebRtcTransport", [&] {
    details["id"] = "t" + std::to_string(platform.media->details.size());
    return ScriptedService::ok(details);
  }()))
    platform.pump();
  EXPECT_EQ(platform.journal.count("device.createSendTransport"), 1);
  EXPECT_EQ(platform.journal.count("device.createReceiveTransport"), 1);
}

TEST_F(MediaTest, transportStatesAreToldButAFailureIsNot) {
  auto test = TestMeeting::joined(platform, {.micEnabled = true});
  test.addPeer("bob");
  test.announce("c1", "bob", "audio");
  platform.media->send.lock()->reach(TransportConnectionState::connected);
  platform.media->receive.lock()->reach(TransportConnectionState::checking);
  platform.media->send.lock()->reach(TransportConnectionState::failed);
  platform.media->send.lock()->reach(TransportConnectionState::disconnected);
  EXPECT_TRUE(platform.traces.has("Send Media Transport State: CONNECTED"));
  EXPECT_TRUE(platform.traces.has("Recieve Media Transport State: CHECKING"));
  EXPECT_FALSE(platform.traces.has("Send Media Transport State: FAILED"));
  EXPECT_EQ(platform.journal.count("producer audio-1.close"), 0) << "joined: the service repairs";
}

// ---- Publishing --------------------------------------------------------------------------------

TEST_F(MediaTest, eachFailureOfAPublishHasItsWordsAndItsError) {
  struct Row {
    const char* what;
    std::function<void(TestPlatform&)> arrange;
    std::vector<int> errors;
    std::vector<const char*> traces;
  };
  const Row rows[] = {
      {"no transport",
       [](auto& it) { it.media->refused = {"createSendTransport"}; },
       {3035, 3035},
       {"Error in unmuteMic() -> Tried to enable mic while meeting is in CONNECTING state.",
        "Error in enableWebcam() -> Tried to enable webcam while meeting is in CONNECTING state.",
        "error while creating sendTransport: createSendTransport refused"}},
      {"device can't",
       [](auto& it) {
         it.media->refused = {"audio", "video"};
       },
       {3012, 3011},
       {"Audio capture is not supported on this device or browser.",
        "Error in enableWebcam() -> Camera access unavailable."}},
      {"engine refuses",
       [](auto& it) { it.media->refused = {"createProducer"}; },
       {},
       {"Error in unmuteMic() -> while creating microphone track", "Enable WebCam Failed"}},
      {"permission denied",
       [](auto& it) {
         it.capture->cameraStatus = AuthorisationStatus::denied;
         it.capture->microphoneStatus = AuthorisationStatus::restricted;
       },
       {3015, 3014},
       {"Permission to access the microphone was denied.",
        "Permission to access the camera was denied."}},
      {"no devices",
       [](auto& it) { it.capture->hasMicrophone = false, it.capture->devices.clear(); },
       {KestrovaError::ERROR_MICROPHONE_ACCESS_UNAVAILABLE.rawValue(),
        KestrovaError::ERROR_NO_WEBCAM_DEVICE_FOUND.rawValue()},
       {"Error in unmuteMic() -> Microphone access unavailable."}},
      {"devices fail",
       [](auto& it) { it.capture->microphoneStart = fails, it.capture->cameraStart = fails; },
       {KestrovaError::ERROR_MICROPHONE_ACCESS_UNAVAILABLE.rawValue(),
        KestrovaError::ERROR_VIDEO_TRACK_CREATION_FAILED.rawValue()},
       {"Failed to start video! the device is busy"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestPlatform own;
    row.arrange(own);
    const auto test = TestMeeting::joined(own, {.micEnabled = true, .webcamEnabled = true});
    std::vector<int> errors;
    for (const auto& error : test.listener->errors) errors.push_back(error.rawValue());
    EXPECT_EQ(errors, row.errors);
    for (const char* trace : row.traces) EXPECT_TRUE(own.traces.has(trace)) << trace;
    EXPECT_TRUE(test.listener->has("onMeetingJoined"));
    EXPECT_TRUE(test.meeting->localParticipant()->streams().empty());
  }
}

TEST_F(MediaTest, aCameraIsSentAsItsCodecAndTheDeviceAllow) {
  struct Row {
    const char* what;
    CustomStreamFields fields;
    std::vector<int> errors;
    std::size_t encodings;
    bool namesCodec;
  };
  const Row rows[] = {
      {"VP8", {}, {}, 3, false},
      {"VP8, two layers", {.maxLayer = EncodingLayer::MAX_LAYER_2}, {}, 2, false},
      {"VP8, single", {.multiStream = false}, {}, 1, false},
      {"H264 is always single", {.videoCodec = VideoCodec::H264}, {3009}, 1, true},
      {"H264, single", {.multiStream = false, .videoCodec = VideoCodec::H264}, {}, 1, true},
      {"VP9 is missing", {.videoCodec = VideoCodec::VP9}, {3008}, 3, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestPlatform own;
    const auto test = TestMeeting::joined(
        own, {.webcamEnabled = true, .customCameraVideoStream = camera(row.fields)});
    std::vector<int> errors;
    for (const auto& error : test.listener->errors) errors.push_back(error.rawValue());
    EXPECT_EQ(errors, row.errors);
    ASSERT_EQ(own.media->published.size(), 1u);
    const auto& options = own.media->published.front();
    EXPECT_EQ(options.encodings.size(), row.encodings);
    EXPECT_EQ(!options.codec.empty(), row.namesCodec);
    EXPECT_EQ(options.codecOptions, R"({"videoGoogleStartBitrate":1000})");
    EXPECT_EQ(options.track->id(), "mine");
    EXPECT_THAT(own.journal.only({"camera"}), IsEmpty()) << "an own track needs no camera";
  }
}

TEST_F(MediaTest, aDisabledTrackIsNotPublishedAndFailsNothing) {
  const auto test = joinedWith({.videoTrack = std::make_shared<ScriptedVideoTrack>("mine", false)});
  EXPECT_TRUE(platform.media->published.empty());
  EXPECT_TRUE(test.listener->errors.empty());
}

// ---- Capture -----------------------------------------------------------------------------------

TEST_F(MediaTest, aCameraThatNeverStartsIsGivenUpAfterThreeSeconds) {
  platform.capture->cameraStart = hangs;
  const auto test = TestMeeting::joined(platform, {.webcamEnabled = true});
  platform.advance(2'999ms);
  EXPECT_TRUE(test.listener->errors.empty());
  platform.advance(1ms);
  EXPECT_TRUE(platform.traces.has("Camera start timed out during video-track creation."));
  ASSERT_EQ(test.listener->errors.size(), 1u);
  EXPECT_EQ(test.listener->errors[0], KestrovaError::ERROR_VIDEO_TRACK_CREATION_FAILED);
  platform.capture->finishHanging();
  platform.advance(60s);
  EXPECT_EQ(platform.journal.count("camera.start"), 1);
  EXPECT_TRUE(platform.media->published.empty());
}

TEST_F(MediaTest, overlappingCapturesTakeTurnsAndAReplacedSourceLoses) {
  const auto capturer = MediaCapturer::make();
  const auto config = CustomVideoTrackConfig::h360p_w640p;
  platform.capture->cameraStart = hangs;
  const auto early = platform.start(capturer->createVideoTrack(config, CameraPosition::front));
  const auto later = platform.start(capturer->createVideoTrack(config, CameraPosition::back));
  EXPECT_EQ(platform.journal.count("camera.start"), 1) << "one at a time";
  capturer->stop();
  platform.capture->cameraStart = ScriptedCapture::Behaviour::works;
  platform.capture->finishHanging();
  platform.pump();
  EXPECT_EQ(early->value(), nullptr);
  ASSERT_NE(later->value(), nullptr);
  EXPECT_EQ(later->value()->id(), "ARDAMSv0");
  EXPECT_EQ(capturer->cameraPosition(), CameraPosition::back);
  EXPECT_THAT(
      platform.journal.only({"camera", "source"}),
      ElementsAre("source.adapt 640x360@30", "camera.start cam-front 640x480@30", "camera.stop",
                  "camera.stop", "source.adapt 640x360@30", "camera.start cam-back 1920x1080@30"));
  EXPECT_TRUE(platform.traces.has(
      "Video source was replaced during video-track creation; aborting camera publish."));

  platform.capture->cameraStop = hangs;
  const auto next = platform.start(capturer->createVideoTrack(config, CameraPosition::front));
  platform.advance(3s);
  EXPECT_NE(next->value(), nullptr) << "a stop that hangs is only told";
  EXPECT_TRUE(platform.traces.has("Camera stop timed out during video-track creation."));
}

// ---- Consuming ---------------------------------------------------------------------------------

TEST_F(MediaTest, announcementsThatMakeNoSenseAreLeftUnanswered) {
  auto test = TestMeeting::joined(platform);
  test.addPeer("bob");
  const Dictionary good{{"id", "c1"},
                        {"kind", "video"},
                        {"producerId", "p1"},
                        {"rtpParameters", Dictionary()},
                        {"appData", {{"peerId", "bob"}}},
                        {"peerId", "bob"}};
  const auto announce = [&](Dictionary data) {
    const auto pushed = test.socket().push(
        "newConsumer", Dictionary{{"method", "newConsumer"}, {"data", std::move(data)}});
    platform.pump();
    return pushed->acknowledged;
  };
  for (const auto& [key, value] : good) {
    Dictionary missing = good;
    missing.erase(key);
    Dictionary mistyped = good;
    mistyped[key] = 5;
    EXPECT_FALSE(announce(missing)) << key;
    EXPECT_FALSE(announce(mistyped)) << key;
  }
  platform.media->refused = {"consume"};
  EXPECT_FALSE(announce(good));
  EXPECT_TRUE(platform.traces.has("Unable to receive participant's media stream: consume refused"));
  platform.media->refused.clear();
  EXPECT_TRUE(announce(good));
  EXPECT_EQ(platform.service->last("connectWebRtcTransport"),
            (Dictionary{{"transportId", "receive"}, {"dtlsParameters", {{"role", "client"}}}}));
}

TEST_F(MediaTest, withoutAReceiveTransportAnnouncementsAreLeftUnanswered) {
  auto without = TestMeeting::joined(platform, {.mode = Mode::VIEWER});
  EXPECT_FALSE(without.announce("c1", "bob", "audio")->acknowledged) << "no transport";
}

}  // namespace
}  // namespace kestrova::test
