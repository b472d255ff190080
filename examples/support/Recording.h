#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace recording {

/// A name made fit for a file name: letters, digits, '-' and '_'; never empty.
std::string fileNameOf(const std::string& name);

/// Keeps what one participant shows and says, in NAME.y4m and NAME.wav.
///
/// Both files begin with the recording and end with it: where no picture came the last one is
/// repeated, where no sound came there is silence. A file is begun with its first picture or block.
/// Pictures are large: 10 MB a second. Thread-safe.
class Recording {
public:
  using Clock = std::chrono::steady_clock;
  static constexpr int width = 640;
  static constexpr int height = 360;
  static constexpr int fps = 30;

  /// \param folder exists \param name the files' name without its ending
  Recording(std::filesystem::path folder, std::string name,
            std::function<Clock::time_point()> now = Clock::now);
  ~Recording();

  /// What to add to the participant's streams.
  std::shared_ptr<kestrova::VideoSink> pictures() const;
  std::shared_ptr<kestrova::AudioSink> sound() const;
  /// Brings both files to the same length and closes them. What comes later is left out.
  void finish();
  /// Why nothing more is written; empty when all is well.
  std::string problem() const;

private:
  struct Timeline;
  class Pictures;
  class Sound;
  const std::shared_ptr<Timeline> _timeline;
  const std::shared_ptr<Pictures> _pictures;
  const std::shared_ptr<Sound> _sound;
};

}  // namespace recording
