#pragma once

#include <kestrova/platform/WebRTC.h>
#include <kestrova/platform/linux/e2ee/FrameFormat.h>

#include <api/frame_transformer_interface.h>

#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace kestrova::e2ee {

/// Looks at the frames of one sender or receiver. On whichever thread of the engine has one, one at
/// a time.
class FrameGuard {
public:
  virtual ~FrameGuard() = default;
  /// May change the frame. \return whether it goes on
  virtual bool pass(webrtc::TransformableFrameInterface& frame) = 0;
};

/// Stands between encoder and packets, or between packets and decoder. Without a guard it lets
/// nothing through, so that whatever is to be encrypted never goes without.
class FrameGate : public webrtc::FrameTransformerInterface {
public:
  explicit FrameGate(FrameCodec codec) : _codec(codec) {}

  FrameCodec codec() const { return _codec; }
  /// The guard is held weakly; another one takes its place.
  void setGuard(std::weak_ptr<FrameGuard> guard);

  void Transform(std::unique_ptr<webrtc::TransformableFrameInterface> frame) override;
  void RegisterTransformedFrameCallback(
      rtc::scoped_refptr<webrtc::TransformedFrameCallback> callback) override;
  void RegisterTransformedFrameSinkCallback(
      rtc::scoped_refptr<webrtc::TransformedFrameCallback> callback, std::uint32_t ssrc) override;
  void UnregisterTransformedFrameCallback() override;
  void UnregisterTransformedFrameSinkCallback(std::uint32_t ssrc) override;

private:
  using Sink = rtc::scoped_refptr<webrtc::TransformedFrameCallback>;

  const FrameCodec _codec;
  std::mutex _lock;
  // Under _lock:
  std::weak_ptr<FrameGuard> _guard;
  Sink _sink;                            // of all that have none of their own
  std::map<std::uint32_t, Sink> _sinks;  // by SSRC: each layer has one
};

/// What sends or receives a track, to those who don't know the engine.
template <class Interface>
class GatedEnd final : public Interface {
public:
  GatedEnd(std::shared_ptr<RTCMediaStreamTrack> track, rtc::scoped_refptr<FrameGate> gate)
      : _track(std::move(track)), _gate(std::move(gate)) {}
  std::shared_ptr<RTCMediaStreamTrack> track() const override { return _track; }
  /// Nothing where it is not to be encrypted.
  const rtc::scoped_refptr<FrameGate>& gate() const { return _gate; }

private:
  const std::shared_ptr<RTCMediaStreamTrack> _track;
  const rtc::scoped_refptr<FrameGate> _gate;
};
using GatedSender = GatedEnd<RTCRtpSender>;
using GatedReceiver = GatedEnd<RTCRtpReceiver>;

}  // namespace kestrova::e2ee
