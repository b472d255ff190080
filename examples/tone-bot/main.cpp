// tone-bot SERVICE MEETING, with the access token in KESTROVA_TOKEN: answers whoever stops speaking
// with a tone. Stays until the meeting ends, or Ctrl-C.
#include <kestrova/kestrova.h>
#include <kestrova/media/AudioFrameSource.h>
#include <kestrova/platform/Queue.h>

#include "support/Printable.h"
#include "support/Stay.h"
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>

using namespace kestrova;

/// Tells when somebody has spoken and then paused for 600 ms.
struct Ear : AudioSink {
  explicit Ear(std::function<void()> then) : onPause(std::move(then)) {}
  void onData(const AudioData& data) override {  // 10 ms, on a background thread
    double energy = 0;
    for (int i = 0; i < data.frames * data.channels; ++i)
      energy += static_cast<double>(data.samples[i]) * data.samples[i];
    const bool loud = std::sqrt(energy / (data.frames * data.channels)) > 500;
    quiet = loud ? 0 : quiet + 1;
    spoken += loud ? 1 : 0;
    if (quiet != 60) return;
    if (std::exchange(spoken, 0) >= 20) onPause();  // 200 ms of sound is no click
  }
  const std::function<void()> onPause;
  int quiet = 0, spoken = 0;
};

struct Bot : MeetingEventListener, ParticipantEventListener, std::enable_shared_from_this<Bot> {
  const std::shared_ptr<AudioFrameSource> voice = AudioFrameSource::make();
  std::mutex speaking;  // the source takes one thread at a time
  std::map<std::string, std::shared_ptr<Ear>> ears;

  void onParticipantJoined(const std::shared_ptr<Participant>& person) override {
    person->addEventListener(shared_from_this());
    for (const auto& [id, stream] : person->streams()) onStreamEnabled(stream, person);
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& person) override {
    const std::shared_ptr<AudioSink> ear = ears[stream->id()] = std::make_shared<Ear>([=, this] {
      std::puts((terminal::printable(person->displayName()) + " has spoken").c_str());
      std::fflush(stdout);
      answer();
    });
    stream->addSink(ear);  // does nothing for pictures
  }
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>&) override {
    ears.erase(stream->id());
  }
  void answer() {  // half a second of 880 Hz at once; the source sees to the pace
    const std::scoped_lock held(speaking);
    std::int16_t block[480];
    for (int n = 0; n < 24'000; ++n) {
      block[n % 480] =
          static_cast<std::int16_t>(8000 * std::sin(n * 2 * 3.14159265 * 880 / 48'000));
      if (n % 480 == 479) voice->push({block, 48'000, 1, 480});
    }
  }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 3 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... tone-bot SERVICE MEETING\n", stderr), 2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  const auto bot = std::make_shared<Bot>();
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Tone bot",
                                        .micEnabled = true,
                                        .customAudioTrack = bot->voice->makeStream(),
                                        .signalingBaseUrl = argv[1]});
  meeting->addEventListener(bot);
  return stay(loop, std::move(meeting));
}
