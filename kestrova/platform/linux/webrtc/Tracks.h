#pragma once

#include <kestrova/platform/WebRTC.h>

#include <api/media_stream_interface.h>
#include <api/scoped_refptr.h>

#include <memory>
#include <string>

namespace kestrova {

class AudioSource;
class AudioTap;
class Engine;
class VideoSource;
class VideoTap;
struct AudioFeed;
struct VideoFeed;

/// What the transports need of a track.
class EngineTrack {
public:
  virtual ~EngineTrack() = default;
  /// Waits for the engine's own thread.
  virtual rtc::scoped_refptr<webrtc::MediaStreamTrackInterface> engineTrack() const = 0;
  /// As `setEnabled(false)`, but the engine is not told: for when it ends the track anyway.
  virtual void silence() = 0;
};

struct VideoKind {
  using Interface = RTCVideoTrack;
  using Sink = VideoSink;
  using Source = VideoSource;
  using Tap = VideoTap;
  using Feed = VideoFeed;
  using OfEngine = webrtc::VideoTrackInterface;
};

struct AudioKind {
  using Interface = RTCAudioTrack;
  using Sink = AudioSink;
  using Source = AudioSource;
  using Tap = AudioTap;
  using Feed = AudioFeed;
  using OfEngine = webrtc::AudioTrackInterface;
};

/// A local or received track. The engine's track is touched on the engine's own thread only and
/// nothing waits for that, so every operation may be called from anywhere, a sink's callback
/// included. Switching a local track off holds for the next sample or picture of its source.
template <class Kind>
class Track final : public Kind::Interface, public EngineTrack {
public:
  /// \param id what `id()` gives
  static std::shared_ptr<Track> local(std::shared_ptr<Engine> engine, typename Kind::Source& source,
                                      std::string id);
  static std::shared_ptr<Track> received(std::shared_ptr<Engine> engine,
                                         rtc::scoped_refptr<typename Kind::OfEngine> track,
                                         std::string id);
  ~Track() override;
  Track(const Track&) = delete;
  Track& operator=(const Track&) = delete;

  std::string id() const override { return _id; }
  bool isEnabled() const override;
  void setEnabled(bool enabled) override;
  void addSink(const std::shared_ptr<typename Kind::Sink>& sink) override;
  void removeSink(const std::shared_ptr<typename Kind::Sink>& sink) override;
  rtc::scoped_refptr<webrtc::MediaStreamTrackInterface> engineTrack() const override;
  void silence() override;

private:
  struct Line;
  Track(std::shared_ptr<Engine> engine, std::string id);
  void updateSinks();

  const std::shared_ptr<Engine> _engine;
  const std::string _id;
  const std::shared_ptr<Line> _line;
};

using VideoTrack = Track<VideoKind>;
using AudioTrack = Track<AudioKind>;

}  // namespace kestrova
