#pragma once

#include <kestrova/media/BroadcastStream.h>
#include <kestrova/media/FrameMessage.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace kestrova {

class BroadcastSocketConnection;

/// Makes pictures out of what comes on the connection of a process that sends the screen.
///
/// A frame that makes none is dropped, and the next one begins at whatever comes then. All of its
/// work is done on the connection's thread; the rest may be called on any.
class SocketConnectionFrameReader
    : public StreamDelegate,
      public std::enable_shared_from_this<SocketConnectionFrameReader> {
public:
  using DidCapture = std::function<void(const std::shared_ptr<PixelBuffer>& buffer, int rotation)>;
  /// The most that is read at once, in bytes.
  static constexpr std::ptrdiff_t largestRead = 10'240;

  explicit SocketConnectionFrameReader(std::unique_ptr<PictureRenderer> renderer,
                                       const BridgeRules& rules = mainBridge);

  void connection(const std::shared_ptr<BroadcastSocketConnection>& connection);
  /// Set before the connection opens.
  DidCapture didCapture;
  /// The stream has ended, or failed: no more pictures come of it.
  std::function<void()> didEnd;
  /// Nothing came for a while.
  std::function<void()> isQuiet;

  /// Reads once, and works off what came.
  void readBytes(InputStream& from);
  void stream(InputStream& stream, StreamEvent handle, const char* error) override;
  void streamIsQuiet() override;
  /// Nothing is captured any more, but for a picture that is being made.
  void stopCapture();
  std::ptrdiff_t readLength() const { return _readLength; }

  /// Clockwise degrees.
  static int rotationOf(std::int64_t orientation);

private:
  void beginMessage();
  void append(const std::uint8_t* bytes, std::size_t length);
  void complete(bool success, FrameMessage& message);
  void end();
  bool isStopped() const;

  const BridgeRules& _rules;
  mutable std::mutex _lock;
  std::weak_ptr<BroadcastSocketConnection> _connection;
  bool _isStopped = false;
  // On the connection's thread:
  FrameWorkshop _workshop;
  std::optional<FrameMessage> _message;
  std::ptrdiff_t _readLength = largestRead;
  std::array<std::uint8_t, largestRead> _bytes{};
};

/// The older bridge's.
class iOSSocketConnectionFrameReader final : public SocketConnectionFrameReader {
public:
  explicit iOSSocketConnectionFrameReader(std::unique_ptr<PictureRenderer> renderer)
      : SocketConnectionFrameReader(std::move(renderer), olderBridge) {}
};

}  // namespace kestrova
