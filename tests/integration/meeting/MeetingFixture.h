#pragma once

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/system_executor.hpp>
#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include "Attendee.h"
#include "LocalService.h"
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova::test {

/// A local service, and ways for people to come to it.
class MeetingFixture : public testing::Test {
protected:
  explicit MeetingFixture(std::vector<std::string> serviceOptions = {})
      : service(std::move(serviceOptions)) {
    Kestrova::setLogLevel(LogLevel::error);
  }

  InitMeetingOptions person(const std::string& id, bool media = true) const {
    return {.meetingId = "integration",
            .participantId = id,
            .participantName = id,
            .micEnabled = media,
            .webcamEnabled = media,
            .signalingBaseUrl = service.address()};
  }

  /// Joins with the test picture in full size and the tone.
  std::shared_ptr<Attendee> joinWithTone(const std::string& id, double toneHz) {
    return joinWithTone(person(id), toneHz);
  }
  std::shared_ptr<Attendee> joinWithTone(InitMeetingOptions options, double toneHz) {
    useTone(toneHz);
    auto attendee = Attendee::join(service.token(), std::move(options));
    EXPECT_TRUE(attendee->sees("own video")) << attendee->story();
    EXPECT_TRUE(attendee->sees("own audio")) << attendee->story();
    return attendee;
  }
  /// Joins without camera and microphone.
  std::shared_ptr<Attendee> joinToWatch(const std::string& id) {
    return Attendee::join(service.token(), person(id, false));
  }
  /// The same with a picture that is cheap to code.
  std::shared_ptr<Attendee> joinSmall(const std::string& id, double toneHz) {
    return joinWithTone(small(person(id), toneHz), toneHz);
  }
  static InitMeetingOptions small(InitMeetingOptions options, double toneHz) {
    useTone(toneHz);
    CameraVideoTrackOptions camera{.encoderConfig = CustomVideoTrackConfig::h180p_w320p,
                                   .multiStream = false};
    options.customCameraVideoStream =
        boost::asio::co_spawn(boost::asio::system_executor(),
                              Kestrova::createCameraVideoTrack(std::move(camera)),
                              boost::asio::use_future)
            .get();
    return options;
  }
  static void useTone(double toneHz) {
    Kestrova::configureCapture({.camera = "pattern", .microphone = "tone", .toneHz = toneHz});
  }

  LocalService service;
};

}  // namespace kestrova::test
