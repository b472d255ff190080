#include "Calls.h"

#include <kestrova/media/EncodingPresets.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <boost/asio/system_executor.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace kestrova::bench {
namespace {

constexpr auto kPatience = std::chrono::seconds(30);
constexpr auto kSize = CustomVideoTrackConfig::h720p_w1280p;

bool comes(std::future<void> event) {
  return event.wait_for(kPatience) == std::future_status::ready;
}

}  // namespace

void giveUp(const char* why) {
  std::fprintf(stderr, "%s\n", why);
  std::exit(1);
}

void DelayWatch::onFrame(const VideoFrame& frame) {
  const auto view = frame.buffer->i420();
  const auto clock = readTestPictureClock(view);
  const std::chrono::duration<double, std::milli> now =
      std::chrono::system_clock::now().time_since_epoch();
  {
    std::scoped_lock held(_lock);
    _width = view.width;
    if (clock) _ages.push_back(now.count() - static_cast<double>(*clock));
  }
  _wake.notify_all();
}

bool DelayWatch::waitForWidth(int width) {
  std::unique_lock held(_lock);
  _width = 0;
  const bool came = _wake.wait_for(held, kPatience, [&] { return _width >= width; });
  _ages.clear();
  return came;
}

std::vector<double> DelayWatch::takeAges() {
  std::scoped_lock held(_lock);
  return std::exchange(_ages, {});
}

BareCall::BareCall(test::Sfu& server)
    : _sender(test::Endpoint::make(server)), _receiver(test::Endpoint::make(server)) {
  const auto& preset = videoTrackPreset(kSize);
  ProducerOptions options;
  options.track = _sender->cameraTrack(preset.width, preset.height);
  RTCRtpEncodingParameters encoding;
  encoding.maxBitrateBps = preset.bitrates[BitrateMode::BALANCED];
  options.encodings = {encoding};
  options.codec = _sender->codec("video/VP8");
  options.codecOptions = R"({"videoGoogleStartBitrate":1000})";
  const auto producer = _sender->produce(std::move(options));
  const auto consumer = _receiver->consume(producer->id());
  std::dynamic_pointer_cast<RTCVideoTrack>(consumer->track())->addSink(watch);
}

std::shared_ptr<Person> Person::join(const test::LocalService& service, InitMeetingOptions options,
                                     std::shared_ptr<DelayWatch> watch) {
  auto person = std::make_shared<Person>();
  options.signalingBaseUrl = service.address();
  person->_watch = std::move(watch);
  person->_meeting = Kestrova::initMeeting(std::move(options));
  person->_meeting->addEventListener(person);
  person->_meeting->join();
  if (!comes(person->_joined.get_future())) giveUp("a join did not come through");
  return person;
}

void Person::leaveAndWait() {
  _meeting->leave();
  if (!comes(_left.get_future())) giveUp("leaving did not come through");
}

void Person::onParticipantJoined(const std::shared_ptr<Participant>& participant) {
  if (!_watch) return;
  participant->addEventListener(shared_from_this());
  // Streams may have come before this event was delivered.
  for (const auto& [id, stream] : participant->streams()) onStreamEnabled(stream, participant);
}

void Person::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                             const std::shared_ptr<Participant>&) {
  if (const auto video = stream->videoTrack()) video->addSink(_watch);
}

MeetingCall::MeetingCall(const test::LocalService& service)
    : _receiver(Person::join(
          service, {.meetingId = "bench", .participantId = "r", .participantName = "Receiver"},
          watch)),
      _sender(Person::join(service, {.meetingId = "bench",
                                     .participantId = "s",
                                     .participantName = "Sender",
                                     .webcamEnabled = true,
                                     .customCameraVideoStream = oneLayerCamera(kSize),
                                     .multiStream = false})) {}

MeetingCall::~MeetingCall() {
  _sender->leaveAndWait();
  _receiver->leaveAndWait();
}

std::shared_ptr<CustomRTCMediaStream> oneLayerCamera(CustomVideoTrackConfig size) {
  CameraVideoTrackOptions options{.encoderConfig = size, .multiStream = false};
  auto task = Kestrova::createCameraVideoTrack(std::move(options));
  return boost::asio::co_spawn(boost::asio::system_executor(), std::move(task),
                               boost::asio::use_future)
      .get();
}

}  // namespace kestrova::bench
