// first-meeting TOKEN SERVICE MEETING: ten seconds in a meeting, a test picture and a tone.
#include <kestrova/kestrova.h>

#include <atomic>
#include <cstdio>

using namespace kestrova;

int main(int argc, char** argv) {
  if (argc != 4) return std::fputs("usage: first-meeting TOKEN SERVICE MEETING\n", stderr), 2;
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture({.camera = "pattern", .microphone = "tone"});
  Kestrova::config(argv[1]);
  const auto meeting = Kestrova::initMeeting({.meetingId = argv[3],
                                              .participantName = "Ada",
                                              .micEnabled = true,
                                              .webcamEnabled = true,
                                              .signalingBaseUrl = argv[2]});
  static std::atomic<bool> joined = false;
  const auto listening = meeting->listen(
      {.onMeetingJoined = [](const auto&) { joined = true; },
       .onParticipantJoined =
           [](const auto& person) { std::printf("%s is here\n", person->displayName().c_str()); }});
  meeting->join();
  const auto end = meeting->waitUntilOver(std::chrono::seconds(10));
  if (!end) return joined ? 0 : 1;  // letting go of the meeting says goodbye
  std::fprintf(stderr, "%s\n", text(*end).c_str());
  return end->isFailure() ? 1 : 0;
}
