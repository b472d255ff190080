#pragma once

#include <kestrova/session/Meeting.h>

#include "AudioWatch.h"
#include "MeetingWatcher.h"
#include "Picture.h"
#include "ServiceWatch.h"
#include <functional>
#include <memory>
#include <string>

namespace kestrova::meet {

/// What the keys do. Main queue only.
class Controls {
public:
  /// \param meeting \param watcher \param services \param picture \param audio must outlive these
  Controls(Meeting& meeting, MeetingWatcher& watcher, ServiceWatch& services, Picture& picture,
           AudioWatch& audio, std::function<void()> leave)
      : _meeting(meeting),
        _watcher(watcher),
        _services(services),
        _picture(picture),
        _audio(audio),
        _leave(std::move(leave)) {}
  void press(char key);
  /// One line.
  static std::string help();

private:
  void toggleMicrophone();
  void changeToNextMicrophone() { _audio.changeToNext(); }
  void toggleWebcam();
  void toggleScreen();
  void changeQuality();
  void togglePin();
  void toggleBackground() { _picture.toggleBackground(); }
  void takeStill() { _picture.takeStill(); }
  template <Service service>
  void toggle() {
    _services.toggle(service);
  }
  void tell(const std::string& line);
  bool sends(MediaType kind) const;

  Meeting& _meeting;
  MeetingWatcher& _watcher;
  ServiceWatch& _services;
  Picture& _picture;
  AudioWatch& _audio;
  const std::function<void()> _leave;
};

}  // namespace kestrova::meet
