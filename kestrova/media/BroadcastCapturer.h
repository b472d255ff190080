#pragma once

#include <kestrova/media/BroadcastSocketConnection.h>
#include <kestrova/media/SocketConnectionFrameReader.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/ScreenSharing.h>
#include <kestrova/platform/TaskFwd.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// Turns the pictures that another process sends of the screen into a video track: the side of the
/// bridge that listens. Any thread may call.
///
/// A screen that stands still shows its last picture again and again, so that whoever joins later
/// gets to see it.
class BroadcastCapturer : public std::enable_shared_from_this<BroadcastCapturer> {
public:
  static constexpr const char* broadcastTrackId = "ARDAMSb0";
  static constexpr const char* socketFileName = "rtc_SSFD";

  static std::shared_ptr<BroadcastCapturer> make();
  virtual ~BroadcastCapturer();

  /// Always gives a track; one without pictures where the socket can't be had. While a broadcast
  /// runs it gives the one that shows it.
  Task<std::shared_ptr<RTCVideoTrack>> createBroadcastTrack();
  /// Ends the broadcast; a new one needs a new track.
  void removeBroadcastTrack();
  /// The same, unless another track than `only` is the one by now.
  void removeBroadcastTrack(const std::shared_ptr<RTCMediaStreamTrack>& only);
  /// Whether pictures come, or may come yet.
  bool isBroadcasting() const;

  /// The group that the application declared, or the one that `useGroup` put in its place.
  std::optional<std::string> lookUpAppGroupIdentifier() const;
  std::optional<std::string> filePathForIdentifier(const std::string& identifier) const;
  /// \param identifier empty: the one that was declared
  void useGroup(std::string identifier);

  /// `handler` is told, on the bridge's own thread, when the sender of the present broadcast has
  /// gone. Replaces an earlier one.
  void onEnded(std::function<void()> handler);

protected:
  BroadcastCapturer(std::shared_ptr<const Platform> platform, const BridgeRules& rules);

private:
  std::shared_ptr<RTCVideoTrack> trackOnSource();
  void connectReader(const std::shared_ptr<SocketConnectionFrameReader>& reader);
  std::int64_t timeStampUs();
  void deliver(const std::shared_ptr<PixelBuffer>& buffer, int rotation);
  void repeat();
  void ended(const SocketConnectionFrameReader* reader);

  const std::shared_ptr<const Platform> _platform;
  const BridgeRules& _rules;
  const std::shared_ptr<RTCPeerConnectionFactory> _peerConnectionFactory;
  mutable std::mutex _sourceLock;
  // Under _sourceLock:
  std::shared_ptr<RTCVideoSource> _videoSource;
  std::shared_ptr<RTCVideoTrack> _track;
  std::shared_ptr<SocketConnectionFrameReader> _framereader;
  std::shared_ptr<BroadcastSocketConnection> _socketconnection;
  std::string _group;
  std::function<void()> _ended;
  VideoFrame _last;
  std::optional<std::int64_t> _firstTimeUs;
};

/// The older bridge's.
class iOSBroadcastScreenCapturer final : public BroadcastCapturer {
public:
  static std::shared_ptr<iOSBroadcastScreenCapturer> make();

private:
  explicit iOSBroadcastScreenCapturer(std::shared_ptr<const Platform> platform)
      : BroadcastCapturer(std::move(platform), olderBridge) {}
};

}  // namespace kestrova
