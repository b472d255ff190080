#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// How one simulcast layer is sent. Unset fields leave the choice to the engine.
struct RTCRtpEncodingParameters {
  enum class Priority { veryLow, low, medium, high };
  std::string rid;
  bool isActive = true;
  std::optional<int> maxBitrateBps;
  std::optional<double> maxFramerate;
  std::optional<double> scaleResolutionDownBy;
  std::optional<std::string> scalabilityMode;
  Priority networkPriority = Priority::low;
};

/// One track of audio or video, local or remote. Thread-safe.
class RTCMediaStreamTrack {
public:
  virtual ~RTCMediaStreamTrack() = default;
  virtual std::string id() const = 0;
  virtual bool isEnabled() const = 0;
  /// A disabled local track sends silence or black; a disabled remote one is not played. Sinks of a
  /// disabled track hear silence and see nothing.
  virtual void setEnabled(bool enabled) = 0;
};

class RTCVideoTrack : public RTCMediaStreamTrack {
public:
  /// The sink is held weakly; adding it twice changes nothing.
  virtual void addSink(const std::shared_ptr<VideoSink>& sink) = 0;
  virtual void removeSink(const std::shared_ptr<VideoSink>& sink) = 0;
};

class RTCAudioTrack : public RTCMediaStreamTrack {
public:
  virtual void addSink(const std::shared_ptr<AudioSink>& sink) = 0;
  virtual void removeSink(const std::shared_ptr<AudioSink>& sink) = 0;
};

/// Where a local video track takes its pictures from.
class RTCVideoSource {
public:
  virtual ~RTCVideoSource() = default;
  /// Pictures larger than this are scaled down, keeping the aspect ratio; faster ones are thinned.
  virtual void adaptOutputFormat(int width, int height, int fps) = 0;
  /// Feeds one picture; its buffer is not copied. Any one thread at a time.
  virtual void onFrame(const VideoFrame& frame) = 0;
};

/// Where a local audio track takes its samples from.
class RTCAudioSource {
public:
  virtual ~RTCAudioSource() = default;
  /// What the source was made with.
  virtual std::map<std::string, std::string> constraints() const = 0;
  /// Feeds 10 ms of samples. Any one thread at a time.
  virtual void onData(const AudioData& data) = 0;
};

/// What sends one track, or receives it. Thread-safe.
class RTCRtpSender {
public:
  virtual ~RTCRtpSender() = default;
  virtual std::shared_ptr<RTCMediaStreamTrack> track() const = 0;
};
class RTCRtpReceiver {
public:
  virtual ~RTCRtpReceiver() = default;
  virtual std::shared_ptr<RTCMediaStreamTrack> track() const = 0;
};

/// Makes sources and tracks. Thread-safe.
class RTCPeerConnectionFactory {
public:
  virtual ~RTCPeerConnectionFactory() = default;
  virtual std::shared_ptr<RTCVideoSource> videoSource() = 0;
  /// The same for pictures of a screen: what is short of bits loses frames before it loses detail.
  virtual std::shared_ptr<RTCVideoSource> videoSourceForScreenCast() { return videoSource(); }
  /// \param constraints texts such as "googEchoCancellation": "true"
  virtual std::shared_ptr<RTCAudioSource> audioSource(
      const std::map<std::string, std::string>& constraints) = 0;
  virtual std::shared_ptr<RTCVideoTrack> videoTrack(const std::shared_ptr<RTCVideoSource>& source,
                                                    const std::string& trackId) = 0;
  virtual std::shared_ptr<RTCAudioTrack> audioTrack(const std::shared_ptr<RTCAudioSource>& source,
                                                    const std::string& trackId) = 0;
};

}  // namespace kestrova
