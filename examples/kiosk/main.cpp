// kiosk SERVICE MEETING [BACKGROUND-URL], with the access token in KESTROVA_TOKEN and, for an
// encrypted meeting, the key in KESTROVA_KEY: a terminal in a lobby, which nobody sees behind
// whoever stands there. The topic CHAT steers it: "screen", "hide", "picture", "mic" for the next.
#include <kestrova/kestrova.h>
#include <kestrova/media/KestrovaBackgroundProcessor.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSub.h>

#include "support/Stay.h"
#include "support/Work.h"
#include <cstdlib>

using namespace kestrova;

struct Kiosk : MeetingEventListener, PubSubMessageListener, std::enable_shared_from_this<Kiosk> {
  std::weak_ptr<Meeting> desk;
  std::shared_ptr<PubSub> topics;
  std::optional<std::string> background;
  std::size_t mic = 0;

  void onMeetingJoined(const std::optional<std::string>&) override {
    work::attempt(topics->subscribe("CHAT", shared_from_this()), "not subscribed");
    using Background = KestrovaBackgroundProcessor;
    const auto seen = [where = desk](bool isThere) {  // the camera waits for the background
      if (const auto meeting = where.lock(); meeting && isThere) meeting->enableWebcam();
    };
    desk.lock()->setVideoProcessor(background
                                       ? std::make_shared<Background>(*background, seen)
                                       : std::make_shared<Background>(Background::Blur(), seen));
  }
  void onMessageReceived(const PubSubMessage& asked) override {
    const auto meeting = desk.lock();
    if (!meeting || asked.payload.contains("kiosk")) return;
    if (asked.message == "screen") meeting->enableScreenShare();
    if (asked.message == "hide") meeting->disableScreenShare();
    if (asked.message == "mic") takeNextMicrophone(*meeting);
    if (asked.message == "picture")
      meeting->localParticipant()->captureImage(
          480, 640, [self = shared_from_this()](const auto& jpeg) { self->sendPicture(jpeg); });
  }
  void sendPicture(const std::optional<std::string>& jpeg) {
    const auto meeting = desk.lock();
    if (!meeting || !jpeg) return say("no picture");
    const auto stored = [self = shared_from_this()](const auto& url) {
      self->say(url ? "picture: " + *url : "not stored");
    };
    meeting->uploadBase64File(*jpeg, std::getenv("KESTROVA_TOKEN"), "kiosk.jpg", stored);
  }
  void takeNextMicrophone(Meeting& meeting) {
    const auto mics = meeting.getMics();
    if (mics.empty()) return say("no microphone");
    meeting.changeMic(mics[++mic % mics.size()].deviceName);
  }
  void onMicChanged(const std::string& name) override { say("listens by " + name); }
  void onError(const KestrovaError& error) override { say(text(error)); }
  void say(const std::string& line) {
    work::attempt(topics->publish("CHAT", line, {}, {{"kiosk", true}}), "not said");
  }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc < 3 || argc > 4 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... kiosk SERVICE MEETING [BACKGROUND]\n", stderr), 2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::config(token);
  if (const char* key = std::getenv("KESTROVA_KEY")) {
    const auto keys = std::make_shared<BaseKeyProvider>(true);
    keys->setSharedKey(key);
    Kestrova::setKeyProvider(keys);
  }
  const auto kiosk = std::make_shared<Kiosk>();
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Kiosk",
                                        .micEnabled = true,
                                        .signalingBaseUrl = argv[1]});
  kiosk->desk = meeting;
  kiosk->topics = meeting->pubsub();
  if (argc == 4) kiosk->background = argv[3];
  meeting->addEventListener(kiosk);
  return stay(loop, std::move(meeting));
}
