#include "Picture.h"

#include "Base64.h"
#include <fstream>
#include <stdexcept>
#include <utility>

namespace kestrova::meet {
namespace {

constexpr const char* blurred = "blur";

/// Of a path, as it stands within a URL.
std::string escaped(const std::string& path) {
  constexpr std::string_view plain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string text;
  for (const char c : path) {
    if (plain.find(c) != plain.npos) {
      text += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    text += '%';
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace

std::string backgroundSource(const std::string& given) {
  if (given == blurred || given.find("://") != given.npos) return given;
  std::error_code error;
  const auto path = std::filesystem::absolute(given, error);
  if (error || !std::filesystem::is_regular_file(path, error))
    throw std::runtime_error("there is no \"" + given + "\"");
  return "file://" + escaped(path.string());
}

Picture::Picture(Meeting& meeting, MeetingWatcher& watcher, std::string background,
                 std::filesystem::path folder)
    : _meeting(meeting),
      _watcher(watcher),
      _source(std::move(background)),
      _folder(std::move(folder)) {}

void Picture::bring() {
  if (_processor) {  // joined again
    if (_isThere && _awaitsWebcam) turnOn();
    return;
  }
  using Processor = KestrovaBackgroundProcessor;
  const auto there = [this, weak = std::weak_ptr(_life)](bool isThere) {
    if (weak.expired()) return;
    _isThere = isThere;
    _watcher.note("background", {{"there", isThere}},
                  isThere ? "the background is there" : "no background: the camera stays off");
    if (isThere) turnOn();
  };
  _awaitsWebcam = true;
  if (_source == blurred)
    _processor = std::make_shared<Processor>(Processor::Blur(), there);
  else
    _processor = std::make_shared<Processor>(_source, there);
}

/// While the connection is away nothing can be turned on: the next join does it.
void Picture::turnOn() {
  if (_meeting.meetingState() != MeetingState::CONNECTED) return;
  _awaitsWebcam = false;
  show(true);
  _meeting.enableWebcam();
}

void Picture::show(bool on) {
  _isOn = on;
  _meeting.setVideoProcessor(on ? _processor : nullptr);
}

bool Picture::mayShow() {
  if (_source.empty() || _isThere) return true;
  tell("there is no background yet: the webcam stays off");
  return false;
}

bool Picture::beforeWebcam() {
  if (!mayShow()) return false;
  if (_isOn) show(true);
  return true;
}

void Picture::toggleBackground() {
  if (!mayShow()) return;
  if (!_processor)
    _processor = std::make_shared<KestrovaBackgroundProcessor>(KestrovaBackgroundProcessor::Blur());
  show(!_isOn);
  tell(_isOn ? "background on" : "background off");
}

void Picture::takeStill() {
  const auto me = _meeting.localParticipant();
  std::optional<double> height;
  std::optional<double> width;
  bool hasCamera = false;
  for (const auto& [id, stream] : me->streams()) {
    if (stream->kind() != MediaType::video) continue;
    hasCamera = true;
    // The shape of what is sent, where it is known by now.
    const auto metrics = stream->metrics();
    if (metrics.width > 0) width = metrics.width;
    if (metrics.height > 0) height = metrics.height;
  }
  if (!hasCamera) return tell("no still picture: the webcam is off");
  me->captureImage(height, width,
                   [this, weak = std::weak_ptr(_life)](const std::optional<std::string>& jpeg) {
                     if (weak.expired()) return;
                     jpeg ? keep(*jpeg) : tell("no still picture could be taken");
                   });
}

/// Under a name that is free.
void Picture::keep(const std::string& jpegInBase64) {
  std::error_code ignored;
  std::filesystem::create_directories(_folder, ignored);
  std::filesystem::path path;
  do {
    path = _folder / ("still-" + std::to_string(++_stills) + ".jpg");
  } while (std::filesystem::exists(path, ignored));
  std::ofstream file(path, std::ios::binary);
  file << base64Decoded(jpegInBase64);
  file.close();
  tell(file ? "still picture in " + path.string() : "can't write " + path.string());
}

}  // namespace kestrova::meet
