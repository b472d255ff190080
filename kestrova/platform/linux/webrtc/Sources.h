#pragma once

#include <kestrova/platform/WebRTC.h>
#include <kestrova/platform/linux/webrtc/Feeds.h>
#include <kestrova/platform/linux/webrtc/VideoBuffers.h>

#include <api/media_stream_interface.h>
#include <api/notifier.h>
#include <api/scoped_refptr.h>
#include <media/base/adapted_video_track_source.h>
#include <rtc_base/timestamp_aligner.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kestrova {

class Engine;

/// The tracks that one source feeds. Thread-safe.
template <class Tap>
class TapList {
public:
  using Taps = std::vector<rtc::scoped_refptr<Tap>>;
  void add(rtc::scoped_refptr<Tap> tap) {
    std::scoped_lock held(_lock);
    auto taps = std::make_shared<Taps>(*_taps);
    taps->push_back(std::move(tap));
    _taps = std::move(taps);
  }
  void remove(const Tap& gone) {
    std::shared_ptr<const Taps> before;
    std::scoped_lock held(_lock);
    auto taps = std::make_shared<Taps>(*_taps);
    std::erase_if(*taps, [&](const auto& tap) { return tap.get() == &gone; });
    before = std::exchange(_taps, std::move(taps));
  }
  std::shared_ptr<const Taps> all() {
    std::scoped_lock held(_lock);
    return _taps;
  }

private:
  std::mutex _lock;
  // Replaced, never changed, so that delivering copies only the pointer. Under _lock.
  std::shared_ptr<const Taps> _taps = std::make_shared<Taps>();
};

/// What one local track is to the engine: the pictures of its source, none once the track is off.
class VideoTap : public rtc::AdaptedVideoTrackSource {
public:
  VideoTap(std::weak_ptr<TapList<VideoTap>> siblings, std::shared_ptr<VideoFeed> feed,
           bool isScreencast)
      : _siblings(std::move(siblings)), _feed(std::move(feed)), _isScreencast(isScreencast) {}
  SourceState state() const override { return kLive; }
  bool remote() const override { return false; }
  bool is_screencast() const override { return _isScreencast; }
  absl::optional<bool> needs_denoising() const override { return false; }

  void limit(int width, int height, int fps);
  /// The delivering thread. The feed is served with no lock of the engine held.
  void deliver(const VideoFrame& frame);
  /// Whether the feed is to be served. The engine's own thread.
  void serve(bool wanted);
  /// The source forgets it. Any thread.
  void leave();

private:
  struct Keeper final : rtc::VideoSinkInterface<webrtc::VideoFrame> {
    void OnFrame(const webrtc::VideoFrame& frame) override { kept = frame; }
    absl::optional<webrtc::VideoFrame> kept;
  };
  const std::weak_ptr<TapList<VideoTap>> _siblings;
  const std::shared_ptr<VideoFeed> _feed;
  const bool _isScreencast;
  // The delivering thread:
  rtc::TimestampAligner _aligner;
  EngineBuffers _buffers;
  Keeper _keeper;
};

/// The same for audio: silent from the moment that the track is off.
class AudioTap : public webrtc::Notifier<webrtc::AudioSourceInterface> {
public:
  AudioTap(std::weak_ptr<TapList<AudioTap>> siblings, std::shared_ptr<AudioFeed> feed)
      : _siblings(std::move(siblings)), _feed(std::move(feed)) {}
  SourceState state() const override { return kLive; }
  bool remote() const override { return false; }
  const cricket::AudioOptions options() const override { return {}; }
  void AddSink(webrtc::AudioTrackSinkInterface* sink) override;
  void RemoveSink(webrtc::AudioTrackSinkInterface* sink) override;

  void deliver(const AudioData& data);
  void serve(bool) {}
  void leave();

private:
  const std::weak_ptr<TapList<AudioTap>> _siblings;
  const std::shared_ptr<AudioFeed> _feed;
  std::mutex _lock;
  std::vector<webrtc::AudioTrackSinkInterface*> _engineSinks;  // under _lock
};

/// Pictures from the application to the senders of its tracks. A picture that needs no scaling goes
/// through without a copy.
class VideoSource final : public RTCVideoSource {
public:
  explicit VideoSource(std::shared_ptr<Engine> engine, bool isScreencast = false)
      : _engine(std::move(engine)), _isScreencast(isScreencast) {}
  void adaptOutputFormat(int width, int height, int fps) override;
  void onFrame(const VideoFrame& frame) override;
  /// For one more track.
  rtc::scoped_refptr<VideoTap> tap(std::shared_ptr<VideoFeed> feed);

private:
  struct Limit {
    int width = 0;
    int height = 0;
    int fps = 0;
  };
  const std::shared_ptr<Engine> _engine;
  const bool _isScreencast;
  const std::shared_ptr<TapList<VideoTap>> _taps = std::make_shared<TapList<VideoTap>>();
  std::mutex _lock;
  Limit _limit;  // under _lock
};

/// Samples from the application to the senders of its tracks: what comes in here goes out, and
/// nothing of any audio device is mixed in.
class AudioSource final : public RTCAudioSource {
public:
  /// The constraints speak of processing, which is the recorder's business: samples are taken as
  /// given.
  AudioSource(std::shared_ptr<Engine> engine, std::map<std::string, std::string> constraints)
      : _engine(std::move(engine)), _constraints(std::move(constraints)) {}
  std::map<std::string, std::string> constraints() const override { return _constraints; }
  void onData(const AudioData& data) override;
  /// For one more track.
  rtc::scoped_refptr<AudioTap> tap(std::shared_ptr<AudioFeed> feed);

private:
  const std::shared_ptr<Engine> _engine;
  const std::map<std::string, std::string> _constraints;
  const std::shared_ptr<TapList<AudioTap>> _taps = std::make_shared<TapList<AudioTap>>();
};

}  // namespace kestrova
