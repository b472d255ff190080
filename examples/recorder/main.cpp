// recorder SERVICE MEETING FOLDER, with the access token in KESTROVA_TOKEN: writes each participant
// to FOLDER/NAME.y4m and FOLDER/NAME.wav. Stays until the meeting ends, or Ctrl-C.
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>

#include "support/Recording.h"
#include "support/Stay.h"
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

using namespace kestrova;
using recording::Recording;

struct Recorder : MeetingEventListener,
                  ParticipantEventListener,
                  std::enable_shared_from_this<Recorder> {
  explicit Recorder(std::filesystem::path f) : folder(std::move(f)) {}
  const std::filesystem::path folder;
  std::map<std::string, std::shared_ptr<Recording>> recordings;  // by participant
  std::map<std::string, int> taken;                              // names of files

  void onParticipantJoined(const std::shared_ptr<Participant>& person) override {
    if (recordings.contains(person->id())) return;  // told again after a reconnection
    auto name = recording::fileNameOf(person->displayName());
    if (const int copies = taken[name]++) name += "-" + std::to_string(copies + 1);
    recordings[person->id()] = std::make_shared<Recording>(folder, name);
    std::printf("recording %s\n", name.c_str()), std::fflush(stdout);
    person->addEventListener(shared_from_this());
    for (const auto& [id, stream] : person->streams()) onStreamEnabled(stream, person);
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& person) override {
    const auto found = recordings.find(person->id());
    if (found == recordings.end() || stream->kind() == MediaType::share) return;
    stream->addSink(found->second->pictures());  // each takes its own medium only
    stream->addSink(found->second->sound());
  }
  void onParticipantLeft(const std::shared_ptr<Participant>& person) override {
    recordings.erase(person->id());  // completes the files
  }
  void onMeetingLeft() override { recordings.clear(); }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 4 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... recorder SERVICE MEETING FOLDER\n", stderr), 2;
  std::filesystem::create_directories(argv[3]);
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Recorder",
                                        .mode = Mode::RECV_ONLY,
                                        .signalingBaseUrl = argv[1]});
  const auto recorder = std::make_shared<Recorder>(argv[3]);
  meeting->addEventListener(recorder);
  return stay(loop, std::move(meeting));
}
