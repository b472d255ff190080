#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/session/Kestrova.h>

#include "Endpoint.h"
#include "LocalService.h"
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova::bench {

/// Receives test pictures and notes how old each one is.
class DelayWatch final : public VideoSink {
public:
  void onFrame(const VideoFrame& frame) override;
  /// Waits until one picture more of at least that width has come, and forgets the ages so far.
  bool waitForWidth(int width);
  /// The ages, in ms, of the pictures since they were last asked for.
  std::vector<double> takeAges();

private:
  std::mutex _lock;
  std::condition_variable _wake;
  std::vector<double> _ages;  // under _lock
  int _width = 0;             // under _lock
};

/// One way of getting a camera's pictures from a sender through a media server to a receiver.
class Call {
public:
  virtual ~Call() = default;
  /// What the receiver sees.
  const std::shared_ptr<DelayWatch> watch = std::make_shared<DelayWatch>();
};

/// The engine and its transports, driven by hand; nothing of sessions or signalling.
class BareCall final : public Call {
public:
  explicit BareCall(test::Sfu& server);

private:
  std::shared_ptr<test::Endpoint> _sender;
  std::shared_ptr<test::Endpoint> _receiver;
};

/// A meeting of this process with one person in it. The destructor leaves and waits for it.
class Person : public MeetingEventListener,
               public ParticipantEventListener,
               public std::enable_shared_from_this<Person> {
public:
  /// Joins and waits for it; ends the program if that fails.
  static std::shared_ptr<Person> join(const test::LocalService& service, InitMeetingOptions options,
                                      std::shared_ptr<DelayWatch> watch = nullptr);
  void leaveAndWait();

  void onMeetingJoined(const std::optional<std::string>&) override { _joined.set_value(); }
  void onMeetingLeft() override { _left.set_value(); }
  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override;
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& participant) override;

private:
  std::shared_ptr<Meeting> _meeting;
  std::shared_ptr<DelayWatch> _watch;
  std::promise<void> _joined;
  std::promise<void> _left;
};

/// Two meetings of the library.
class MeetingCall final : public Call {
public:
  explicit MeetingCall(const test::LocalService& service);
  ~MeetingCall() override;

private:
  std::shared_ptr<Person> _receiver;
  std::shared_ptr<Person> _sender;
};

/// A camera of the library's own for one layer of that size.
std::shared_ptr<CustomRTCMediaStream> oneLayerCamera(CustomVideoTrackConfig size);

/// Ends the program with a message.
[[noreturn]] void giveUp(const char* why);

}  // namespace kestrova::bench
