#pragma once

#include <kestrova/session/Kestrova.h>

#include "Senses.h"
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova::test {

/// One person in a meeting: joins it, notes what happens as lines of text, and watches and hears
/// everybody else.
class Attendee : public MeetingEventListener,
                 public ParticipantEventListener,
                 public std::enable_shared_from_this<Attendee> {
public:
  /// Long enough for a machine whose cores are all busy with something else.
  static constexpr std::chrono::seconds patience{60};

  /// Makes the meeting, listens to it and joins.
  static std::shared_ptr<Attendee> join(const std::string& token, InitMeetingOptions options);

  std::shared_ptr<Meeting> meeting;
  const std::shared_ptr<Picture> picture = std::make_shared<Picture>();
  const std::shared_ptr<Sound> sound = std::make_shared<Sound>();
  /// Runs with each line as it is noted, on the main queue.
  std::function<void(const std::string& line)> onLine;

  /// Waits until a line starts with `start`; false when patience runs out.
  bool sees(const std::string& start, std::chrono::seconds limit = patience);
  /// The same for as many lines.
  bool seesTimes(const std::string& start, int times, std::chrono::seconds limit = patience);
  bool waitUntil(const std::function<bool()>& condition, std::chrono::seconds limit = patience);
  /// Waits until fresh pictures with a running clock, and a fresh tone with hardly a gap, come
  /// from the others.
  bool getsMedia(double toneHz, std::chrono::seconds limit = patience);
  bool getsPictures(std::chrono::seconds limit = patience);
  std::shared_ptr<Participant> other(const std::string& id) const;
  /// The stream of a remote participant; nothing when there is none.
  std::shared_ptr<MediaStream> stream(const std::string& participantId, MediaType kind) const;
  /// All lines, for the message of a failed expectation.
  std::string story() const;
  std::vector<std::string> lines() const;
  int count(const std::string& start) const;
  void leaveAndWait();

  void onMeetingJoined(const std::optional<std::string>& switchMeetingId) override {
    note(switchMeetingId ? "moved " + *switchMeetingId : "joined");
  }
  void onMeetingLeft() override { note("left"); }
  void onMeetingLeft(LeaveReason reason) override { note(words("left", name(reason))); }
  void onMicRequested(const std::optional<std::string>& participantId, AcceptMediaRequest accept,
                      Action reject) override {
    grantsRequests ? accept() : reject();
    note("mic asked by " + participantId.value_or("nobody"));
  }
  void onWebcamRequested(const std::optional<std::string>& participantId, AcceptMediaRequest accept,
                         Action reject) override {
    grantsRequests ? accept() : reject();
    note("webcam asked by " + participantId.value_or("nobody"));
  }
  void onPinStateChanged(const std::string& participantId, PinType) override {
    const bool isPinned = meeting->pinnedParticipants().contains(participantId);
    note(words(isPinned ? "pinned" : "unpinned", participantId));
  }
  void onParticipantModeChanged(const std::string& participantId, Mode mode) override {
    note(words("mode", participantId, wireText(mode)));
  }
  void onPausedAllStreams(const std::string& kind) override { note("all paused " + kind); }
  void onResumedAllStreams(const std::string& kind) override { note("all resumed " + kind); }
  void onStreamPaused(const std::string& kind, const std::string&) override {
    note("paused " + kind);
  }
  void onStreamResumed(const std::string& kind, const std::string&) override {
    note("resumed " + kind);
  }
  void onMediaStatusChanged(const std::string& peerId, MediaType kind, bool newStatus) override {
    note(words("status", peerId, text(kind), newStatus ? "on" : "off"));
  }
  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override;
  void onParticipantLeft(const std::shared_ptr<Participant>& participant,
                         LeaveReason reason) override {
    note(words("without", participant->displayName(), name(reason)));
  }
  void onSpeakerChanged(const std::optional<std::string>& participantId) override {
    note("speaker " + participantId.value_or("nobody"));
  }
  void onPresenterChanged(const std::optional<std::string>& participantId) override {
    note("presenter " + participantId.value_or("nobody"));
  }
  void onMeetingStateChanged(MeetingState state) override { note(words("state", name(state))); }
  void onEntryResponded(const std::string& id, const std::string& decision) override {
    note(words("entry", id, decision));
  }
  void onEntryRequested(const std::string& id, const std::string&, Action allow,
                        Action deny) override {
    if (letsPeopleIn) (*letsPeopleIn ? allow : deny)();
    note("asked " + id);
  }
  void onRecordingStateChanged(RecordingState state) override { note(std::string(text(state))); }
  void onLivestreamStateChanged(LiveStreamState state) override { note(std::string(text(state))); }
  void onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& urls) override {
    note(words(text(state), urls ? urls->playbackHlsUrl.value_or("") : ""));
  }
  void onTranscriptionStateChanged(TranscriptionState state) override {
    note(std::string(text(state)));
  }
  void onTranscriptionText(const TranscriptionText& said) override {
    note(words("transcribed", said.participantId, said.text));
  }
  void onWhiteboardStarted(const std::string& url) override { note("whiteboard " + url); }
  void onWhiteboardStopped() override { note("no whiteboard"); }
  void onMediaRelayRequestReceived(const std::string& participantId, const std::string& meetingId,
                                   const std::string&, Action accept, Action reject) override {
    if (takesRelays) (*takesRelays ? accept : reject)();
    note(words("relay asked by", participantId, "of", meetingId));
  }
  void onMediaRelayRequestResponse(const std::string& decision, const std::string& decidedBy,
                                   const std::string& meetingId) override {
    note(words("relay", decision, "by", decidedBy, "of", meetingId));
  }
  void onMediaRelayStarted(const std::string& meetingId) override { note("relay on " + meetingId); }
  void onMediaRelayStopped(const std::string& meetingId) override {
    note("relay off " + meetingId);
  }
  void onMediaRelayError(const std::string& meetingId, const std::string& error) override {
    note(words("relay error", meetingId, error));
  }
  void onError(const KestrovaError& error) override {
    note(words("error", std::to_string(error.rawValue()), error.name()));
  }
  void onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                           std::int64_t) override {
    note(words("quality", text(type), text(state)));
  }
  void onSocketError(const std::string& message) override { note("socket error " + message); }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& participant) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>& participant) override {
    note(words(participant->isLocal() ? "own end" : "loses", text(stream->kind())));
  }

  void e2eeStateChanged(const std::shared_ptr<Participant>& participant, E2EEState state,
                        const std::shared_ptr<MediaStream>& stream) override {
    note(words("e2ee", participant->id(), text(stream->kind()), text(state)));
  }

  // What is answered before the question is noted, so that both may be set once that is seen.
  /// What to do with people who ask to enter; nothing leaves them waiting.
  std::optional<bool> letsPeopleIn;
  /// Whether a request for the microphone or camera is granted.
  bool grantsRequests = true;

  /// What to do with relays that are asked for; nothing leaves them waiting.
  std::optional<bool> takesRelays;

  void note(const std::string& line);

private:
  template <class... Words>
  static std::string words(const Words&... each) {
    std::string line;
    ((line += line.empty() ? "" : " ", line += each), ...);
    return line;
  }

  mutable std::mutex _lock;
  std::condition_variable _changed;
  std::vector<std::string> _lines;
};

}  // namespace kestrova::test
