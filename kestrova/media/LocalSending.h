#pragma once

#include <kestrova/media/MediaConfigStore.h>
#include <kestrova/model/MeetingTypes.h>

#include <memory>
#include <mutex>
#include <utility>

namespace kestrova {

/// What the local participant is to send: the mode, and the application's own tracks where it gave
/// some. One for a meeting; whoever needs to know asks here. Thread-safe.
class LocalSending {
public:
  using Stream = std::shared_ptr<CustomRTCMediaStream>;

  explicit LocalSending(Mode mode, Stream video = {}, Stream audio = {})
      : _mode(mode), _video(std::move(video)), _audio(std::move(audio)) {}

  Mode mode() const {
    std::scoped_lock held(_lock);
    return _mode;
  }
  void setMode(Mode mode) {
    std::scoped_lock held(_lock);
    _mode = mode;
  }

  /// The application's tracks, as long as they are what is to be published.
  Stream customVideoMediaStream() const { return read(_video); }
  Stream customAudioMediaStream() const { return read(_audio); }
  void setCustomVideoMediaStream(Stream stream) { exchange(_video, stream); }
  void setCustomAudioMediaStream(Stream stream) { exchange(_audio, stream); }
  void forgetCustomStreams() {
    setCustomVideoMediaStream(nullptr);
    setCustomAudioMediaStream(nullptr);
  }

private:
  Stream read(const Stream& stream) const {
    std::scoped_lock held(_lock);
    return stream;
  }
  /// The old one goes with the argument, after the lock: a destructor of the application may run.
  void exchange(Stream& stream, Stream& fresh) {
    std::scoped_lock held(_lock);
    stream.swap(fresh);
  }

  mutable std::mutex _lock;
  Mode _mode;
  Stream _video;
  Stream _audio;
};

}  // namespace kestrova
