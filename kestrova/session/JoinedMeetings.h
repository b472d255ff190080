#pragma once

#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

class MeetingLifecycle;

/// The meetings that this process may still be in. When it exits they are let go of, which says
/// goodbye for them. Any thread.
class JoinedMeetings {
public:
  static JoinedMeetings& shared();

  /// From the first one on the exit of the process is watched: before what the media engine, made
  /// by then, has to do there.
  void add(std::weak_ptr<MeetingLifecycle> meeting);

private:
  void abandonAll();

  std::mutex _lock;
  std::vector<std::weak_ptr<MeetingLifecycle>> _meetings;
};

}  // namespace kestrova
