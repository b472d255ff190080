#pragma once

#include <kestrova/session/Meeting.h>

#include "Person.h"
#include <filesystem>
#include <map>
#include <memory>
#include <vector>

namespace kestrova::meet {

/// What `MeetingWatcher` hears that decides about the program's course.
class MeetingCourse {
public:
  virtual ~MeetingCourse() = default;
  virtual void joined() = 0;
  virtual void stateChanged(MeetingState state) = 0;
  virtual void failed(const KestrovaError& error) = 0;
  /// Whether `failed` will end the program with this error, which then says so itself.
  virtual bool endsWith(const KestrovaError& error) const = 0;
  virtual void connectionFailed(const std::string& message) = 0;
  virtual void entryDenied() = 0;
  virtual void over(LeaveReason reason) = 0;
};

/// Keeps track of who is in the meeting and reports what happens in it. Main queue only.
class MeetingWatcher final : public MeetingEventListener,
                             public std::enable_shared_from_this<MeetingWatcher> {
public:
  using Clock = std::chrono::steady_clock;

  /// \param report \param course must outlive the watcher
  /// \param recordings where each remote participant is recorded, if anywhere
  MeetingWatcher(Report& report, MeetingCourse& course,
                 std::optional<std::filesystem::path> recordings)
      : _report(report), _course(course), _recordings(std::move(recordings)) {}
  /// Right before the join.
  void start(const Meeting& meeting);

  void measure();
  Sample sample() const;
  std::optional<std::chrono::milliseconds> joinedAfter() const { return _joinedAfter; }
  Clock::time_point started() const { return _started; }
  const std::vector<std::shared_ptr<Person>>& remotes() const { return _remotes; }
  /// The remote participant that came last and is still there.
  std::shared_ptr<Participant> newest() const;
  /// Tells the user something that isn't of the meeting's own events.
  void note(std::string_view event, const std::string& line) { tell(event, {}, line); }
  void note(std::string_view event, Dictionary details, const std::string& line) {
    tell(event, std::move(details), line);
  }
  /// Completes the files. \returns what went wrong with one of them, or nothing
  std::string finishRecordings();

  void onMeetingJoined(const std::optional<std::string>& switchMeetingId) override;
  void onMeetingLeft(LeaveReason reason) override;
  void onMeetingStateChanged(MeetingState meetingState) override;
  void onError(const KestrovaError& error) override;
  void onSocketError(const std::string& message) override;
  void onEntryResponded(const std::string& id, const std::string& decision) override;
  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override;
  void onParticipantLeft(const std::shared_ptr<Participant>& participant,
                         LeaveReason reason) override;

private:
  std::chrono::milliseconds elapsed() const;
  void tell(std::string_view event, Dictionary details, const std::string& line);
  std::shared_ptr<Person> makePerson(const std::shared_ptr<Participant>& participant);
  std::shared_ptr<recording::Recording> makeRecording(const std::string& name);

  Report& _report;
  MeetingCourse& _course;
  const std::optional<std::filesystem::path> _recordings;
  std::map<std::string, int> _recordedNames;
  Clock::time_point _started = Clock::now();
  std::optional<std::chrono::milliseconds> _joinedAfter;
  std::string _state = "NEW";
  std::shared_ptr<Person> _local;
  std::vector<std::shared_ptr<Person>> _remotes;  // in the order of their coming
  std::map<std::string, std::shared_ptr<Person>> _remotesById;
};

}  // namespace kestrova::meet
