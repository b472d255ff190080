// watch-pictures SERVICE MEETING, with the access token in KESTROVA_TOKEN: counts everybody's
// pictures for ten seconds.
#include <kestrova/kestrova.h>

#include "support/Printable.h"
#include <cstdio>
#include <cstdlib>

using namespace kestrova;
using namespace std::chrono_literals;

struct Guest : MeetingEventListener,
               ParticipantEventListener,
               VideoSink,
               std::enable_shared_from_this<Guest> {
  int pictures = 0;

  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override {
    std::puts((terminal::printable(participant->displayName()) + " is here").c_str());
    participant->addEventListener(shared_from_this());
    for (const auto& [id, stream] : participant->streams()) onStreamEnabled(stream, participant);
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>&) override {
    if (const auto video = stream->videoTrack()) video->addSink(shared_from_this());
  }
  void onFrame(const VideoFrame& frame) override {
    const auto picture = frame.buffer->i420();
    if (++pictures % 100 == 0)
      std::printf("picture %d: %dx%d\n", pictures, picture.width, picture.height);
  }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 3 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... watch-pictures SERVICE MEETING\n", stderr), 2;

  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  const auto meeting = Kestrova::initMeeting(
      {.meetingId = argv[2], .participantName = "Ada", .signalingBaseUrl = argv[1]});
  const auto guest = std::make_shared<Guest>();
  meeting->addEventListener(guest);
  meeting->join();
  const auto end = meeting->waitUntilOver(10s);
  if (end) std::fprintf(stderr, "%s\n", text(*end).c_str());
  return end && end->isFailure() ? 1 : 0;
}
