#pragma once

#include <kestrova/session/MediaStream.h>

#include "PictureWatch.h"
#include "Report.h"
#include "SoundWatch.h"
#include "StreamRates.h"
#include "support/Recording.h"
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kestrova::meet {

/// Watches the streams of one who is in the meeting, a person or a character: how they flow, and of
/// those that are received what is seen and heard. Main queue only.
class MediaWatch final : public std::enable_shared_from_this<MediaWatch> {
public:
  using Clock = std::chrono::steady_clock;
  /// Event name, details for JSON, and a line for people.
  using Teller = std::function<void(std::string_view, Dictionary, std::string)>;
  struct Whose {
    std::string id;
    std::string name;
    bool local = false;
  };

  /// \param recorded gets the camera and the microphone; may be null
  static std::shared_ptr<MediaWatch> make(Whose whose, Teller tell,
                                          std::shared_ptr<recording::Recording> recorded = nullptr);

  const std::string& id() const { return _whose.id; }
  const std::string& name() const { return _whose.name; }
  bool local() const { return _whose.local; }
  /// Some have no name before the service gives them one.
  void rename(std::string name) { _whose.name = std::move(name); }

  /// Whose it is goes into the details.
  void tell(std::string_view event, Dictionary details, const std::string& line) const;
  void add(const std::shared_ptr<MediaStream>& stream);
  void remove(const std::shared_ptr<MediaStream>& stream);
  /// Without a word: all are gone.
  void clear() { _streams.clear(); }
  /// \returns what went wrong with it, or nothing
  std::string finishRecording();

  /// Once a second: frame rate, and new statistics of every stream.
  void measure(Clock::time_point now);
  PersonRow row(bool here) const;
  RemoteSummary summary(Clock::time_point joinStarted) const;
  /// The last picture, of the camera or else of the shared screen.
  VideoFrame lastPicture() const;

private:
  struct Watched {
    std::shared_ptr<MediaStream> stream;
    StreamRates rates;
  };
  MediaWatch(Whose whose, Teller tell) : _whose(std::move(whose)), _tell(std::move(tell)) {}
  void prepare();
  const std::shared_ptr<PictureWatch>& shownPicture() const;
  static Task<void> takeStats(std::weak_ptr<MediaWatch> weak, std::shared_ptr<MediaStream> stream);

  Whose _whose;
  const Teller _tell;
  std::map<std::string, Watched> _streams;
  std::shared_ptr<PictureWatch> _camera;
  std::shared_ptr<PictureWatch> _share;
  std::shared_ptr<SoundWatch> _sound;
  std::shared_ptr<recording::Recording> _recording;
};

}  // namespace kestrova::meet
