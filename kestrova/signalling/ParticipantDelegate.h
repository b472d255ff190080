#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/media/MediaType.h>
#include <kestrova/model/Peer.h>
#include <kestrova/model/PinState.h>
#include <kestrova/platform/Values.h>
#include <kestrova/platform/WebRTC.h>
#include <kestrova/signalling/Events.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// Carries out what the application asks of a participant, once the guard has let it through. Each
/// returns at once; failures reach the application through `onError`. Any thread.
class ParticipantDelegate {
public:
  virtual ~ParticipantDelegate() = default;
  /// \param request one of enablePeerMic, disablePeerMic, enablePeerWebcam, disablePeerWebcam and
  ///   removePeer
  virtual void askOfPeer(LocalEvent request, const std::string& participantId) = 0;
  /// \param onRefused called when the service does not take the request; any thread
  virtual void participantPinStateChanged(const std::string& participantId,
                                          ParticipantPinState pinState, bool pinning,
                                          std::function<void()> onRefused) = 0;
  virtual void setQuality(VideoQuality quality, const std::string& consumerId,
                          const std::string& participantId, std::function<void()> onRefused) = 0;
  /// The newest reports of the participant's streams of that kind; nothing without any.
  virtual std::optional<List> getStats(const std::string& participantId, MediaType type) = 0;
  /// See `takeStillPicture`. \param of whose pictures they are
  virtual void imageCapturer(const std::shared_ptr<RTCVideoTrack>& of, std::optional<double> height,
                             std::optional<double> width,
                             std::function<void(const std::optional<std::string>&)> completion) = 0;
};

/// The same for one stream.
class MediaStreamDelegate {
public:
  virtual ~MediaStreamDelegate() = default;
  virtual void pauseConsumer(const std::string& consumerId) = 0;
  virtual void resumeConsumer(const std::string& consumerId) = 0;
};

}  // namespace kestrova
