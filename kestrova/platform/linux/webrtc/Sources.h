#pragma once

#include <kestrova/platform/WebRTC.h>

#include <api/media_stream_interface.h>
#include <api/scoped_refptr.h>

#include <map>
#include <memory>
#include <string>

namespace kestrova {

class Engine;

/// Pictures from the application to the senders of its tracks. A picture that needs no scaling goes
/// through without a copy.
class VideoSource final : public RTCVideoSource {
public:
  explicit VideoSource(std::shared_ptr<Engine> engine);
  ~VideoSource() override;
  void adaptOutputFormat(int width, int height, int fps) override;
  void onFrame(const VideoFrame& frame) override;

  webrtc::VideoTrackSourceInterface& engineSource();

private:
  class Adapter;
  std::shared_ptr<Engine> _engine;
  rtc::scoped_refptr<Adapter> _adapter;
};

/// Samples from the application to the senders of its tracks: what comes in here goes out, and
/// nothing of any audio device is mixed in.
class AudioSource final : public RTCAudioSource {
public:
  AudioSource(std::shared_ptr<Engine> engine,
              const std::map<std::string, std::string>& constraints);
  ~AudioSource() override;
  std::map<std::string, std::string> constraints() const override { return _constraints; }
  void onData(const AudioData& data) override;

  webrtc::AudioSourceInterface& engineSource();

private:
  class Feed;
  std::shared_ptr<Engine> _engine;
  const std::map<std::string, std::string> _constraints;
  rtc::scoped_refptr<Feed> _feed;
};

}  // namespace kestrova
