#pragma once

#include <kestrova/media/KestrovaBackgroundProcessor.h>
#include <kestrova/session/Meeting.h>

#include "MeetingWatcher.h"
#include <filesystem>
#include <memory>
#include <string>

namespace kestrova::meet {

/// What the others see of us: the background, and still pictures of it. Main queue only.
class Picture {
public:
  /// \param background a URL, "blur", or empty: none to begin with
  /// \param folder for still pictures \param meeting \param watcher must outlive this
  Picture(Meeting& meeting, MeetingWatcher& watcher, std::string background,
          std::filesystem::path folder);

  /// At each join: turns the camera on as soon as the background is there, and not before.
  void bring();
  /// The background goes with the camera: before it is turned on again. \returns whether it may be:
  /// not without the background that was asked for
  bool beforeWebcam();
  /// From the background to the room as it is, and back; without any, the room out of focus.
  void toggleBackground();
  /// Writes a still picture to a file.
  void takeStill();

private:
  struct Life {};
  void turnOn();
  void show(bool on);
  bool mayShow();
  void tell(const std::string& line) { _watcher.note("key", line); }
  void keep(const std::string& jpegInBase64);

  Meeting& _meeting;
  MeetingWatcher& _watcher;
  const std::string _source;
  const std::filesystem::path _folder;
  std::shared_ptr<KestrovaBackgroundProcessor> _processor;
  bool _isOn = false;
  bool _isThere = false;
  bool _awaitsWebcam = false;
  int _stills = 0;
  const std::shared_ptr<Life> _life = std::make_shared<Life>();  // for what is told later
};

/// Of what the command line says: "blur", a URL, or a file, which becomes one.
/// \throws std::runtime_error when there is no such file
std::string backgroundSource(const std::string& given);

}  // namespace kestrova::meet
