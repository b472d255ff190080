// monitor SERVICE MEETING, with the access token in KESTROVA_TOKEN: tells who comes, goes, speaks
// and shows what, and how the connection fares, until the meeting ends or Ctrl-C.
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>

#include "support/Printable.h"
#include "support/Stay.h"
#include <cstdlib>
#include <set>
#include <string>

using namespace kestrova;

void say(const std::string& line) {
  std::puts(terminal::printable(line).c_str());
  std::fflush(stdout);
}

struct Monitor : MeetingEventListener,
                 ParticipantEventListener,
                 std::enable_shared_from_this<Monitor> {
  std::set<std::string> there;

  void onMeetingJoined(const std::optional<std::string>&) override { say("joined"); }
  void onMeetingLeft(LeaveReason reason) override { say("left: " + std::string(text(reason))); }
  void onParticipantJoined(const std::shared_ptr<Participant>& person) override {
    if (!there.insert(person->id()).second) return;  // told again after a reconnection
    say(person->displayName() + " is here");
    person->addEventListener(shared_from_this());
  }
  void onParticipantLeft(const std::shared_ptr<Participant>& person, LeaveReason reason) override {
    there.erase(person->id());
    say(person->displayName() + " left: " + std::string(text(reason)));
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& person) override {
    say(person->displayName() + " sends " + std::string(text(stream->kind())));
  }
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>& person) override {
    say(person->displayName() + " sends no " + std::string(text(stream->kind())));
  }
  void onSpeakerChanged(const std::optional<std::string>& id) override {
    say("speaking: " + id.value_or("nobody"));
  }
  void onMeetingStateChanged(MeetingState state) override { say(std::string(text(state))); }
  void onError(const KestrovaError& error) override { say(text(error)); }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 3 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... monitor SERVICE MEETING\n", stderr), 2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  const auto monitor = std::make_shared<Monitor>();
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Monitor",
                                        .mode = Mode::RECV_ONLY,
                                        .signalingBaseUrl = argv[1]});
  meeting->addEventListener(monitor);
  return stay(loop, std::move(meeting));
}
