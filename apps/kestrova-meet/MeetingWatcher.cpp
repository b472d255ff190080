#include "MeetingWatcher.h"

#include <utility>

namespace kestrova::meet {

void MeetingWatcher::start(const Meeting& meeting) {
  _started = Clock::now();
  _state = "CONNECTING";
  _local = makePerson(meeting.localParticipant());
}

std::chrono::milliseconds MeetingWatcher::elapsed() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - _started);
}

void MeetingWatcher::tell(std::string_view event, Dictionary details, const std::string& line) {
  details["ms"] = elapsed().count();
  _report.happened(event, details, line);
}

std::shared_ptr<Person> MeetingWatcher::makePerson(
    const std::shared_ptr<Participant>& participant) {
  MediaWatch::Teller teller = [weak = weak_from_this()](std::string_view event, Dictionary details,
                                                        std::string line) {
    if (const auto self = weak.lock()) self->tell(event, std::move(details), line);
  };
  auto recorded = participant->isLocal() ? nullptr : makeRecording(participant->displayName());
  return Person::make(participant, std::move(teller), std::move(recorded));
}

std::shared_ptr<recording::Recording> MeetingWatcher::makeRecording(const std::string& name) {
  if (!_recordings) return nullptr;
  auto file = recording::fileNameOf(name);
  if (const int copies = _recordedNames[file]++) file += "-" + std::to_string(copies + 1);
  return std::make_shared<recording::Recording>(*_recordings, file);
}

std::string MeetingWatcher::finishRecordings() {
  std::string problem;
  for (const auto& person : _remotes)
    if (auto found = person->finishRecording(); problem.empty()) problem = std::move(found);
  return problem;
}

std::shared_ptr<Participant> MeetingWatcher::newest() const {
  for (auto person = _remotes.rbegin(); person != _remotes.rend(); ++person)
    if (auto participant = (*person)->participant()) return participant;
  return nullptr;
}

void MeetingWatcher::measure() {
  const auto now = Clock::now();
  if (_local) _local->measure(now);
  for (const auto& person : _remotes) person->measure(now);
}

Sample MeetingWatcher::sample() const {
  Sample sample{.elapsed = elapsed(), .state = _state};
  if (_local) sample.people.push_back(_local->row());
  for (const auto& person : _remotes) sample.people.push_back(person->row());
  return sample;
}

void MeetingWatcher::onMeetingJoined(const std::optional<std::string>&) {
  if (!_joinedAfter) _joinedAfter = elapsed();
  _state = "JOINED";
  tell("joined", {}, "joined");
  _course.joined();
}

void MeetingWatcher::onMeetingLeft(LeaveReason reason) {
  _state = "LEFT";
  const std::string why(message(reason));
  tell("left", {{"reason", rawValue(reason)}, {"message", why}}, "left: " + why);
  _course.over(reason);
}

void MeetingWatcher::onMeetingStateChanged(MeetingState meetingState) {
  _state = name(meetingState);
  // The connection came back under a joined meeting.
  if (_joinedAfter && meetingState == MeetingState::CONNECTED) _state = "JOINED";
  tell("state", {{"state", name(meetingState)}}, std::string(name(meetingState)));
  _course.stateChanged(meetingState);
}

void MeetingWatcher::onError(const KestrovaError& error) {
  Dictionary details{
      {"code", code(error)}, {"name", error.constantName()}, {"message", error.message()}};
  if (!error.cause().empty()) details["cause"] = error.cause();
  tell("error", std::move(details), _course.endsWith(error) ? "" : "error " + text(error));
  _course.failed(error);
}

void MeetingWatcher::onSocketError(const std::string& message) {
  tell("socketError", {{"message", message}}, "connection: " + message);
  _course.connectionFailed(message);
}

void MeetingWatcher::onEntryResponded(const std::string& id, const std::string& decision) {
  tell("entry", {{"id", id}, {"decision", decision}}, "entry " + decision);
  const bool mine = _local && _local->id() == id;
  if (mine && decision == "denied") _course.entryDenied();
}

void MeetingWatcher::onParticipantJoined(const std::shared_ptr<Participant>& participant) {
  auto& person = _remotesById[participant->id()];
  if (person) {
    person->came(participant);
    return;
  }
  tell("participantJoined", {{"id", participant->id()}, {"name", participant->displayName()}},
       participant->displayName() + " is there");
  person = makePerson(participant);
  _remotes.push_back(person);
}

void MeetingWatcher::onParticipantLeft(const std::shared_ptr<Participant>& participant,
                                       LeaveReason reason) {
  tell("participantLeft",
       {{"id", participant->id()},
        {"name", participant->displayName()},
        {"reason", rawValue(reason)},
        {"message", message(reason)}},
       participant->displayName() + " left");
  const auto found = _remotesById.find(participant->id());
  if (found != _remotesById.end()) found->second->left();
}

}  // namespace kestrova::meet
