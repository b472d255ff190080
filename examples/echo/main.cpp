// echo SERVICE MEETING, with the access token in KESTROVA_TOKEN: says back what the first person in
// the meeting says, until the meeting ends or Ctrl-C. Without any device.
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>

#include "support/Printable.h"
#include "support/Stay.h"
#include <cstdlib>
#include <string>

using namespace kestrova;

struct Echo : MeetingEventListener,
              ParticipantEventListener,
              AudioSink,
              std::enable_shared_from_this<Echo> {
  const std::shared_ptr<AudioFrameSource> voice = AudioFrameSource::make();
  std::string heard;  // whose stream it is
  std::shared_ptr<SinkHandle> listening;

  void onParticipantJoined(const std::shared_ptr<Participant>& person) override {
    person->addEventListener(shared_from_this());
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& person) override {
    if (!heard.empty() || !stream->audioTrack()) return;
    heard = stream->id();
    listening = stream->addSink(std::shared_ptr<AudioSink>(shared_from_this()));
    std::puts(("echoing " + terminal::printable(person->displayName())).c_str());
    std::fflush(stdout);
  }
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>&) override {
    if (stream->id() != heard) return;
    listening->remove();
    heard.clear();
    voice->clear();  // silent at once
  }
  // On a background thread, one call at a time, as the source wants it.
  void onData(const AudioData& sound) override { voice->push(sound); }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 3 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... echo SERVICE MEETING\n", stderr), 2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  const auto echo = std::make_shared<Echo>();
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Echo",
                                        .micEnabled = true,
                                        .customAudioTrack = echo->voice->makeStream(),
                                        .signalingBaseUrl = argv[1]});
  meeting->addEventListener(echo);
  return stay(loop, std::move(meeting));
}
