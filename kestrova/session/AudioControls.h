#pragma once

#include <kestrova/model/AudioDevice.h>
#include <kestrova/session/MeetingContext.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrova {

/// What an application asks of the machine's sound during a meeting.
class AudioControls {
public:
  explicit AudioControls(std::shared_ptr<MeetingContext> context);

  std::vector<AudioDevice> getMics();
  /// Changes are made in the order in which they were asked for.
  void changeMic(std::string selectedDevice);

private:
  const std::shared_ptr<MeetingContext> _context;
  // Of its own: a look for the devices may wait for the sound server.
  const std::shared_ptr<SerialQueue> _queue;
};

}  // namespace kestrova
