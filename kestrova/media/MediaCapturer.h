#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/platform/AsyncLock.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova {

/// Owns the local camera and microphone of one meeting, or of one custom track.
///
/// Camera sessions are started and stopped one after the other on a queue of their own; each start
/// and each stop waits for the device for 3 s at most. Any thread may call.
class MediaCapturer : public std::enable_shared_from_this<MediaCapturer> {
public:
  static constexpr std::chrono::milliseconds captureTimeout{3'000};
  static constexpr int defaultFrameRate = 30;
  static constexpr const char* cameraTrackId = "ARDAMSv0";
  static constexpr const char* microphoneTrackId = "ARDAMSa0";

  static std::shared_ptr<MediaCapturer> make();
  ~MediaCapturer();

  /// Starts the camera and gives its track; nothing when there is no such camera, when it does not
  /// start in time, or when its source was replaced meanwhile.
  Task<std::shared_ptr<RTCVideoTrack>> createVideoTrack(CustomVideoTrackConfig encoderConfig,
                                                        CameraPosition facingMode);
  /// Starts the microphone and gives its track; nothing when there is none.
  std::shared_ptr<RTCAudioTrack> createAudioTrack(
      const std::map<std::string, std::string>& constraints);

  bool isCameraRunning() const { return _videoCapturer->isRunning(); }
  Task<void> stopCamera();
  CameraPosition cameraPosition() const;
  void setCameraPosition(CameraPosition position);

  void removeAudioTrack();
  /// Ends the camera's track and gives up one that is being made.
  void removeVideoTrack();
  /// Both, and the camera itself.
  void stop();

  /// Disables the tracks of a stream that was not published and ends their capture.
  static void disposeCustomTrack(const std::shared_ptr<CustomRTCMediaStream>& stream);
  static AuthorisationStatus getVideoPermissionStatus();
  static AuthorisationStatus getAudioPermissionStatus();
  /// The names of the cameras.
  static std::vector<std::string> getListOfCamerasAsString();

private:
  explicit MediaCapturer(std::shared_ptr<const Platform> platform);
  Task<std::shared_ptr<RTCVideoTrack>> capture(CaptureFormat output, CameraPosition position);
  Task<bool> stopSession();
  Task<bool> startSession(AVCaptureDevice device, int fps);
  std::shared_ptr<RTCVideoTrack> bindTrackIfSourceCurrent(
      const std::shared_ptr<RTCVideoSource>& source);
  std::shared_ptr<RTCVideoSource> videoSource() const;

  const std::shared_ptr<const Platform> _platform;
  const std::shared_ptr<RTCPeerConnectionFactory> _peerConnectionFactory;
  const std::shared_ptr<SerialQueue> _cameraSessionQueue;
  const std::shared_ptr<RTCCameraVideoCapturer> _videoCapturer;
  AsyncLock _session;

  mutable std::mutex _mediaLock;
  std::shared_ptr<RTCVideoSource> _videoSource;
  std::shared_ptr<RTCVideoTrack> _videoTrack;
  std::shared_ptr<RTCAudioTrack> _audioTrack;
  std::unique_ptr<MicrophoneCapturer> _microphone;
  CameraPosition _cameraPosition = CameraPosition::front;
};

}  // namespace kestrova
