#include "Controls.h"

#include <algorithm>
#include <iterator>

namespace kestrova::meet {
namespace {

VideoQuality nextAfter(VideoQuality quality) {
  switch (quality) {
    case VideoQuality::high:
      return VideoQuality::medium;
    case VideoQuality::medium:
      return VideoQuality::low;
    case VideoQuality::low:
      break;
  }
  return VideoQuality::high;
}

}  // namespace

void Controls::press(char key) {
  struct Row {
    char key;
    void (Controls::*operation)();
  };
  static constexpr Row rows[] = {{'m', &Controls::toggleMicrophone},
                                 {'n', &Controls::changeToNextMicrophone},
                                 {'v', &Controls::toggleWebcam},
                                 {'b', &Controls::toggleBackground},
                                 {'i', &Controls::takeStill},
                                 {'s', &Controls::toggleScreen},
                                 {'q', &Controls::changeQuality},
                                 {'p', &Controls::togglePin},
                                 {'R', &Controls::toggle<Service::recording>},
                                 {'T', &Controls::toggle<Service::transcription>},
                                 {'H', &Controls::toggle<Service::hls>},
                                 {'W', &Controls::toggle<Service::whiteboard>}};
  if (key == 'l') return _leave();
  if (key == '?') return tell(help());
  const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                 [&](const Row& known) { return known.key == key; });
  if (row == std::end(rows)) return;
  if (!_watcher.joinedAfter()) return tell("not joined yet");
  (this->*row->operation)();
}

std::string Controls::help() {
  return "keys: m microphone, n next microphone, v webcam, s screen, b background, i still "
         "picture, "
         "q quality, p pin, R recording, T transcription, H HLS, W whiteboard, l leave, ? help";
}

void Controls::tell(const std::string& line) {
  _watcher.note("key", line);
}

bool Controls::sends(MediaType kind) const {
  const auto streams = _meeting.localParticipant()->streams();
  return std::any_of(streams.begin(), streams.end(),
                     [&](const auto& entry) { return entry.second->kind() == kind; });
}

void Controls::toggleMicrophone() {
  const bool on = sends(MediaType::audio);
  tell(on ? "microphone off" : "microphone on");
  on ? _meeting.muteMic() : _meeting.unmuteMic();
}

void Controls::toggleWebcam() {
  const bool on = sends(MediaType::video);
  if (!on && !_picture.beforeWebcam()) return;
  tell(on ? "webcam off" : "webcam on");
  on ? _meeting.disableWebcam() : _meeting.enableWebcam();
}

void Controls::toggleScreen() {
  const bool on = sends(MediaType::share);
  tell(on ? "screen off" : "screen on");
  on ? _meeting.disableScreenShare() : _meeting.enableScreenShare();
}

void Controls::changeQuality() {
  const auto person = _watcher.newest();
  if (!person) return tell("nobody else is there");
  const auto quality = nextAfter(person->videoQuality());
  try {
    person->setQuality(quality);
    tell("quality of " + person->displayName() + ": " + std::string(text(quality)));
  } catch (const AgentParticipantError& error) {
    tell(error.what());
  }
}

void Controls::togglePin() {
  const auto person = _watcher.newest();
  if (!person) return tell("nobody else is there");
  const bool pinned = person->pinState().cam.value_or(false);
  tell((pinned ? "unpinning " : "pinning ") + person->displayName());
  pinned ? person->unpin(PinType::CAM) : person->pin(PinType::CAM);
}

}  // namespace kestrova::meet
