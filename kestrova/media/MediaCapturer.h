#pragma once

#include <kestrova/media/AuthorisationDelegate.h>
#include <kestrova/media/FramePath.h>
#include <kestrova/media/MediaConfigStore.h>
#include <kestrova/platform/AsyncLock.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// Owns the local camera and microphone of one meeting, or of one custom track.
///
/// Camera sessions are started and stopped one after the other on a queue of their own; each start
/// and each stop waits for the device for 3 s at most. Letting go of the capturer ends both. Any
/// thread may call.
class MediaCapturer : public std::enable_shared_from_this<MediaCapturer> {
public:
  using Track = std::shared_ptr<RTCMediaStreamTrack>;
  using CaptureFailedHandler =
      std::function<void(MediaKind kind, const Track& track, const std::string& error)>;

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
  /// The same for a track that the application holds, at a size and frame rate of its own.
  Task<std::shared_ptr<RTCVideoTrack>> createCustomVideoStream(CameraPosition cameraPosition,
                                                               CaptureFormat videoConfig);
  /// Starts the microphone and gives its track; nothing when there is none.
  std::shared_ptr<RTCAudioTrack> createAudioTrack(
      const std::map<std::string, std::string>& constraints);
  /// The same for a track that the application holds.
  std::shared_ptr<RTCAudioTrack> createCustomAudioTrack(
      const std::map<std::string, std::string>& constraints);

  /// Why the latest start of the camera or of the microphone gave no track, for people; empty where
  /// nothing is known.
  std::string startFailure(MediaKind kind) const;

  /// Goes on with the camera of the other position, for the same track, and gives that position.
  /// Nothing when there is no such camera, and nothing changes; nothing, too, when it does not
  /// start: then no picture comes until the next switch. A camera that is off stays off, and only
  /// the position changes.
  Task<std::optional<CameraPosition>> switchCamera();

  /// `handler` is told when a capture ends by itself, after its track was disabled and let go of,
  /// so that the next `createVideoTrack` or `createAudioTrack` starts anew. Called on a background
  /// thread, with no lock held. Replaces an earlier handler.
  void onCaptureFailed(CaptureFailedHandler handler);

  /// What the camera's pictures go through on their way; nothing takes it away. It stays until the
  /// camera's track is removed. See `KestrovaVideoProcessor`.
  void setVideoProcessor(std::shared_ptr<KestrovaVideoProcessor> processor);
  /// From now on the newest picture is kept, such as others see it, until as many calls of
  /// `takeCapturedImage` have asked for it; of those nothing but the last lets go of it.
  void beginImageCapture() { _frames.beginImageCapture(); }
  VideoFrame takeCapturedImage() { return _frames.takeCapturedImage(); }
  /// Whether `track` is the camera's, as it runs now.
  bool feeds(const Track& track) const;

  bool isCameraRunning() const;
  /// Stops a camera that feeds no track.
  Task<void> stopUnusedCamera();
  CameraPosition cameraPosition() const;
  void setCameraPosition(CameraPosition position);

  /// Ends the microphone's track, or the camera's; nothing happens when `track` is another one.
  void removeAudioTrack(const Track& track);
  void removeVideoTrack(const Track& track);
  /// Ends both, gives up a camera's track that is being made, and stops the camera itself.
  void stop();

  /// Disables the tracks of a stream that was not published and ends their capture.
  static void disposeCustomTrack(const std::shared_ptr<CustomRTCMediaStream>& stream);
  static AuthorisationStatus getVideoPermissionStatus();
  static AuthorisationStatus getAudioPermissionStatus();
  static std::vector<AVCaptureDevice> getListOfCameras();
  /// The names of the cameras.
  static std::vector<std::string> getListOfCamerasAsString();
  /// Who is told that a permission is lacking, in place of all others; held weakly, for the
  /// process.
  static void setDelegate(std::weak_ptr<AuthorisationDelegate> delegate);
  /// Another one, besides.
  static void addDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate);
  static void removeDelegate(const std::shared_ptr<AuthorisationDelegate>& delegate);
  /// All of them in one; nothing when none is alive.
  static std::shared_ptr<AuthorisationDelegate> delegate();

private:
  /// Tells one microphone's capture from the next, and whether it has ended by itself.
  using MicrophoneMark = std::shared_ptr<std::atomic<bool>>;

  explicit MediaCapturer(std::shared_ptr<const Platform> platform);
  std::shared_ptr<RTCCameraVideoCapturer> videoCapturer() const;
  void renewCamera();
  void listenTo(RTCCameraVideoCapturer& camera);
  /// The road of a picture, on the capture thread.
  void capturer(const VideoFrame& didCapture);
  Task<std::shared_ptr<RTCVideoTrack>> captureOnQueue(CaptureFormat output, CameraPosition position,
                                                      const char* replaced);
  Task<std::shared_ptr<RTCVideoTrack>> capture(CaptureFormat output, CameraPosition position,
                                               const char* replaced);
  Task<std::optional<CameraPosition>> flipCamera();
  Task<void> goBack(std::shared_ptr<RTCVideoSource> source, int fps);
  Task<bool> stopSession();
  void setStartFailure(MediaKind kind, std::string cause);
  Task<bool> startSession(AVCaptureDevice device, int fps);
  std::shared_ptr<RTCVideoTrack> bindTrackIfSourceCurrent(
      const std::shared_ptr<RTCVideoSource>& source, const char* replaced);
  std::shared_ptr<RTCVideoSource> videoSource() const;
  Task<void> cameraFailed(std::uint64_t session, std::string error);
  void microphoneFailed(const MicrophoneMark& mark, const std::string& error);
  /// \param only nothing happens when the track is another one by now
  std::shared_ptr<RTCAudioTrack> endMicrophone(const Track& only = nullptr);
  std::shared_ptr<RTCVideoTrack> endCameraTrack(const Track& only = nullptr);
  void tellCaptureFailed(MediaKind kind, const std::shared_ptr<RTCMediaStreamTrack>& track,
                         const std::string& error);

  const std::shared_ptr<const Platform> _platform;
  const std::shared_ptr<RTCPeerConnectionFactory> _peerConnectionFactory;
  const std::shared_ptr<SerialQueue> _cameraSessionQueue;
  AsyncLock _session;
  FramePath _frames;

  mutable std::mutex _mediaLock;
  std::shared_ptr<RTCCameraVideoCapturer> _videoCapturer;
  std::shared_ptr<RTCVideoSource> _videoSource;
  std::shared_ptr<RTCVideoTrack> _videoTrack;
  std::uint64_t _cameraSession = 0;  // counts the starts of the camera
  int _frameRate = defaultFrameRate;
  std::shared_ptr<RTCAudioTrack> _audioTrack;
  std::unique_ptr<MicrophoneCapturer> _microphone;
  MicrophoneMark _microphoneMark;
  CameraPosition _cameraPosition = CameraPosition::front;
  CaptureFailedHandler _captureFailed;
  std::array<std::string, 2> _startFailures;  // by kind
};

}  // namespace kestrova
