#pragma once

#include <kestrova/platform/WebRTC.h>

#include <api/media_stream_interface.h>
#include <api/scoped_refptr.h>

#include <memory>
#include <string>

namespace kestrova {

class Engine;

/// What both kinds of track need: the engine's track is touched on the engine thread only, so that
/// every operation may be called from anywhere, a sink's callback included.
class EngineTrack {
public:
  virtual ~EngineTrack() = default;
  virtual rtc::scoped_refptr<webrtc::MediaStreamTrackInterface> engineTrack() const = 0;
};

class VideoTrack final : public RTCVideoTrack, public EngineTrack {
public:
  /// \param id what `id()` gives
  static std::shared_ptr<VideoTrack> make(std::shared_ptr<Engine> engine,
                                          rtc::scoped_refptr<webrtc::VideoTrackInterface> track,
                                          std::string id);
  ~VideoTrack() override;
  std::string id() const override { return _id; }
  bool isEnabled() const override;
  void setEnabled(bool enabled) override;
  void addSink(const std::shared_ptr<VideoSink>& sink) override;
  void removeSink(const std::shared_ptr<VideoSink>& sink) override;
  rtc::scoped_refptr<webrtc::MediaStreamTrackInterface> engineTrack() const override {
    return _track;
  }

private:
  struct Feed;
  VideoTrack(std::shared_ptr<Engine> engine, rtc::scoped_refptr<webrtc::VideoTrackInterface> track,
             std::string id);
  void updateRegistration();

  std::shared_ptr<Engine> _engine;
  rtc::scoped_refptr<webrtc::VideoTrackInterface> _track;
  std::string _id;
  std::shared_ptr<Feed> _feed;
};

class AudioTrack final : public RTCAudioTrack, public EngineTrack {
public:
  static std::shared_ptr<AudioTrack> make(std::shared_ptr<Engine> engine,
                                          rtc::scoped_refptr<webrtc::AudioTrackInterface> track,
                                          std::string id);
  ~AudioTrack() override;
  std::string id() const override { return _id; }
  bool isEnabled() const override;
  void setEnabled(bool enabled) override;
  void addSink(const std::shared_ptr<AudioSink>& sink) override;
  void removeSink(const std::shared_ptr<AudioSink>& sink) override;
  rtc::scoped_refptr<webrtc::MediaStreamTrackInterface> engineTrack() const override {
    return _track;
  }

private:
  struct Feed;
  AudioTrack(std::shared_ptr<Engine> engine, rtc::scoped_refptr<webrtc::AudioTrackInterface> track,
             std::string id);
  void updateRegistration();

  std::shared_ptr<Engine> _engine;
  rtc::scoped_refptr<webrtc::AudioTrackInterface> _track;
  std::string _id;
  std::shared_ptr<Feed> _feed;
};

}  // namespace kestrova
