#include "Attendee.h"

#include <algorithm>

namespace kestrova::test {

std::shared_ptr<Attendee> Attendee::join(const std::string& token, InitMeetingOptions options) {
  auto attendee = std::make_shared<Attendee>();
  Kestrova::config(token);
  attendee->meeting = Kestrova::initMeeting(std::move(options));
  attendee->meeting->addEventListener(attendee);
  attendee->meeting->localParticipant()->addEventListener(attendee);
  attendee->meeting->join();
  return attendee;
}

void Attendee::note(const std::string& line) {
  {
    std::scoped_lock held(_lock);
    _lines.push_back(line);
  }
  _changed.notify_all();
  if (onLine) onLine(line);
}

bool Attendee::waitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    std::unique_lock held(_lock);
    _changed.wait_for(held, std::chrono::milliseconds(20));
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

bool Attendee::sees(const std::string& start) {
  return waitUntil([&] { return count(start) > 0; });
}

std::vector<std::string> Attendee::lines() const {
  std::scoped_lock held(_lock);
  return _lines;
}

int Attendee::count(const std::string& start) const {
  const auto all = lines();
  return static_cast<int>(std::count_if(
      all.begin(), all.end(), [&](const std::string& line) { return line.rfind(start, 0) == 0; }));
}

void Attendee::leaveAndWait() {
  meeting->leave();
  sees("left manual");
}

// ---- Events ------------------------------------------------------------------------------------

void Attendee::onMeetingJoined(const std::optional<std::string>&) {
  note("joined");
}

void Attendee::onMeetingLeft(LeaveReason reason) {
  note("left " + std::string(name(reason)));
}

void Attendee::onParticipantJoined(const std::shared_ptr<Participant>& participant) {
  participant->addEventListener(shared_from_this());
  // Streams may have come before this event was delivered.
  for (const auto& [id, stream] : participant->streams()) onStreamEnabled(stream, participant);
  note("with " + participant->displayName());
}

void Attendee::onParticipantLeft(const std::shared_ptr<Participant>& participant,
                                 LeaveReason reason) {
  note("without " + participant->displayName() + " " + std::string(name(reason)));
}

void Attendee::onSpeakerChanged(const std::optional<std::string>& participantId) {
  note("speaker " + participantId.value_or("nobody"));
}

void Attendee::onMeetingStateChanged(MeetingState state) {
  note("state " + std::string(name(state)));
}

void Attendee::onEntryResponded(const std::string& id, const std::string& decision) {
  note("entry " + id + " " + decision);
}

void Attendee::onEntryRequested(const std::string& id, const std::string&, Action allow,
                                Action deny) {
  note("asked " + id);
  if (letsPeopleIn) (*letsPeopleIn ? allow : deny)();
}

void Attendee::onError(const KestrovaError& error) {
  note("error " + std::to_string(error.rawValue()) + " " + std::string(error.name()));
}

void Attendee::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                               const std::shared_ptr<Participant>& participant) {
  note((participant->isLocal() ? "own " : "gets ") + std::string(text(stream->kind())));
  if (participant->isLocal()) return;
  if (const auto video = stream->videoTrack()) video->addSink(picture);
  if (const auto audio = stream->audioTrack()) audio->addSink(sound);
}

void Attendee::onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                                const std::shared_ptr<Participant>& participant) {
  note((participant->isLocal() ? "own end " : "loses ") + std::string(text(stream->kind())));
}

}  // namespace kestrova::test
