// metrics SERVICE MEETING, with the access token in KESTROVA_TOKEN: one line of CSV for each look
// at each stream of the others, and one for whatever holds its own picture, a test pattern, back.
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>

#include "support/Printable.h"
#include "support/Stay.h"
#include <cstdlib>

using namespace kestrova;

struct Metrics : MeetingEventListener,
                 ParticipantEventListener,
                 std::enable_shared_from_this<Metrics> {
  void onParticipantJoined(const std::shared_ptr<Participant>& person) override {
    person->addEventListener(shared_from_this());
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& person) override {
    const auto name =
        terminal::printable(person->displayName()) + "," + std::string(text(stream->kind()));
    stream->onMetrics([name](const StreamMetrics& now) {
      std::printf("%s,%.0f,%.1f,%dx%d,%.0f,%.1f,%.0f,%lld\n", name.c_str(), now.bitrateKbps,
                  now.framesPerSecond, now.width, now.height, now.roundTripMs.value_or(-1),
                  now.packetLossPercent.value_or(-1), now.jitterMs.value_or(-1),
                  static_cast<long long>(now.freezes));
      std::fflush(stdout);
    });
  }
  void onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                           std::int64_t) override {
    std::printf("me,%s,%s\n", text(type).data(), text(state).data());
  }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 3 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... metrics SERVICE MEETING\n", stderr), 2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture({.camera = "pattern", .microphone = "none", .speaker = "none"});
  Kestrova::config(token);
  const auto metrics = std::make_shared<Metrics>();
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Metrics",
                                        .webcamEnabled = true,
                                        .signalingBaseUrl = argv[1]});
  meeting->addEventListener(metrics);
  std::puts("who,kind,kbit/s,fps,size,rtt ms,loss %,jitter ms,freezes");
  return stay(loop, std::move(meeting));
}
