// first-meeting TOKEN SERVICE MEETING: ten seconds in a meeting, a test picture and a tone.
#include <kestrova/session/Kestrova.h>

#include <cstdio>
#include <thread>

using namespace kestrova;

struct Host : MeetingEventListener {
  void onParticipantJoined(const std::shared_ptr<Participant>& person) override {
    std::printf("%s is here\n", person->displayName().c_str());
  }
  void onError(const KestrovaError& error) override { std::puts(text(error).c_str()); }
};

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  Kestrova::setLogLevel(LogLevel::error);
  Kestrova::configureCapture({.camera = "pattern", .microphone = "tone"});
  Kestrova::config(argv[1]);
  auto meeting = Kestrova::initMeeting({.meetingId = argv[3],
                                        .participantName = "Ada",
                                        .micEnabled = true,
                                        .webcamEnabled = true,
                                        .signalingBaseUrl = argv[2]});
  auto host = std::make_shared<Host>();
  meeting->addEventListener(host);
  meeting->join();
  std::this_thread::sleep_for(std::chrono::seconds(10));
  meeting->leave();
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the goodbye travels
}
