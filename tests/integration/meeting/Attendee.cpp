#include "Attendee.h"

#include <gtest/gtest.h>

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

bool Attendee::waitUntil(const std::function<bool()>& condition, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    std::unique_lock held(_lock);
    _changed.wait_for(held, std::chrono::milliseconds(20));
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

bool Attendee::sees(const std::string& start, std::chrono::seconds limit) {
  return seesTimes(start, 1, limit);
}

bool Attendee::seesTimes(const std::string& start, int times, std::chrono::seconds limit) {
  return waitUntil([&] { return count(start) >= times; }, limit);
}

bool Attendee::getsPictures(std::chrono::seconds limit) {
  const int seen = picture->clocksRead;
  return waitUntil([&] { return picture->clocksRead > seen + 10; }, limit);
}

bool Attendee::getsMedia(double toneHz, std::chrono::seconds limit) {
  sound->forget();
  return getsPictures(limit) && waitUntil([&] { return sound->presence(toneHz) > 0.85; }, limit);
}

std::shared_ptr<Participant> Attendee::other(const std::string& id) const {
  const auto others = meeting->participants();
  const auto found = others.find(id);
  return found == others.end() ? nullptr : found->second;
}

std::shared_ptr<MediaStream> Attendee::stream(const std::string& participantId,
                                              MediaType kind) const {
  const auto participant = other(participantId);
  if (!participant) return nullptr;
  for (const auto& [id, stream] : participant->streams())
    if (stream->kind() == kind) return stream;
  return nullptr;
}

std::string Attendee::story() const {
  std::string all;
  for (const auto& line : lines()) all += line + "; ";
  return all + std::to_string(picture->clocksRead) + " clocks of " +
         std::to_string(picture->frames) + " pictures, " + std::to_string(sound->loudBlocks) +
         " blocks of sound";
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
  EXPECT_TRUE(sees("left manual")) << story();
}

void Attendee::onParticipantJoined(const std::shared_ptr<Participant>& participant) {
  participant->addEventListener(shared_from_this());
  // Streams may have come before this event was delivered.
  for (const auto& [id, stream] : participant->streams()) onStreamEnabled(stream, participant);
  note("with " + participant->displayName());
}

void Attendee::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                               const std::shared_ptr<Participant>& participant) {
  note(words(participant->isLocal() ? "own" : "gets", text(stream->kind())));
  if (participant->isLocal()) return;
  stream->on(MediaStreamEventType::state, [weak = weak_from_this()](StreamState state) {
    if (const auto self = weak.lock()) self->note(words("stream", text(state)));
  });
  if (const auto video = stream->videoTrack()) video->addSink(picture);
  if (const auto audio = stream->audioTrack()) audio->addSink(sound);
}

}  // namespace kestrova::test
