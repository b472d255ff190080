// agent SERVICE MEETING, with the access token in KESTROVA_TOKEN: hears everybody, thinks when
// somebody has spoken, and answers by a message and by sound. Whoever speaks meanwhile interrupts.
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Values.h>
#include <kestrova/realtime/PubSub.h>

#include "support/EndOfSpeech.h"
#include "support/Notes.h"
#include "support/Printable.h"
#include "support/Stay.h"
#include "support/Work.h"

using namespace kestrova;

struct Answer {
  std::string text;
  std::vector<std::int16_t> sound;  // mono at 48 kHz
};

/// Put a recogniser, a language model and a synthesiser here. It has a thread of its own.
Answer think(const speech::Utterance& said, const std::string& who) {
  const auto ms = static_cast<int>(said.spoken.count());
  return {who + " spoke for " + std::to_string(ms) + " ms", speech::notes(1 + ms / 500)};
}

struct Agent : MeetingEventListener, ParticipantEventListener, std::enable_shared_from_this<Agent> {
  const std::shared_ptr<AudioFrameSource> voice =
      AudioFrameSource::make({.mostQueued = std::chrono::minutes(1)});
  std::shared_ptr<PubSub> topics;
  std::map<std::string, std::shared_ptr<speech::Ear>> ears;  // by stream
  std::mutex lock;                                           // for the next two, and for pushing
  int speakers = 0;
  unsigned turn = 0;           // goes up when somebody begins to speak
  work::Backlog thinking{10};  // the last, so that it goes first and waits for a thought

  void onParticipantJoined(const std::shared_ptr<Participant>& person) override {
    if (std::dynamic_pointer_cast<AgentParticipant>(person)) return;  // two would never end
    person->addEventListener(shared_from_this());
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& person) override {
    if (stream->kind() != MediaType::audio) return;
    stream->addSink(
        ears[stream->id()] = std::make_shared<speech::Ear>(
            [weak = weak_from_this(), who = person->displayName()](speech::Heard heard) {
              if (const auto self = weak.lock()) self->hear(std::move(heard), who);
            }));
  }
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>&) override {
    // Who turns the microphone off at the last word has ended, too.
    if (const auto gone = ears.extract(stream->id())) gone.mapped()->finish();
  }
  void onError(const KestrovaError& error) override { std::puts(text(error).c_str()); }

  void hear(speech::Heard heard, const std::string& who) {  // on background threads
    const std::scoped_lock held(lock);
    speakers += heard.began - static_cast<int>(heard.ended.size());
    if (heard.began > 0) ++turn, voice->clear();
    for (auto& said : heard.ended)
      if (thinking.add(
              [this, said = std::move(said), who, asked = turn] { answer(said, who, asked); }))
        std::fputs("an utterance gets no answer: too much was said meanwhile\n", stderr);
  }
  void answer(const speech::Utterance& said, const std::string& who, unsigned asked) try {
    const Answer answer = think(said, who);
    std::puts(terminal::printable(answer.text).c_str()), std::fflush(stdout);
    work::attempt(topics->publish("CHAT", answer.text, {}, {{"agent", true}}), "not written");
    const std::scoped_lock held(lock);
    if (turn != asked || speakers > 0) return;  // somebody speaks: written is enough
    for (std::size_t at = 0; at + 480 <= answer.sound.size(); at += 480)
      voice->push({&answer.sound[at], 48'000, 1, 480});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "no answer for %s: %s\n", terminal::printable(who).c_str(), error.what());
  }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc != 3 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... agent SERVICE MEETING\n", stderr), 2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  const auto agent = std::make_shared<Agent>();
  auto meeting = Kestrova::initMeeting(
      {.meetingId = argv[2],
       .participantName = "Agent",
       .micEnabled = true,
       .customAudioTrack = agent->voice->makeStream(),
       .signalingBaseUrl = argv[1],
       .metaData = Dictionary{{"agent_id", "example"}, {"agent_name", "Agent"}}});
  agent->topics = meeting->pubsub();
  meeting->addEventListener(agent);
  return stay(loop, std::move(meeting));
}
