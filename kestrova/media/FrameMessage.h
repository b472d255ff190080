#pragma once

#include <kestrova/media/BridgeRules.h>
#include <kestrova/media/HTTPMessage.h>
#include <kestrova/platform/ScreenSharing.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace kestrova {

/// What the frames of one stream are made with: one after the other, on one thread.
struct FrameWorkshop {
  HTTPMessage framedMessage;
  std::unique_ptr<PictureRenderer> renderer;
  PixelBufferPool buffers;
};

/// One frame as it comes in: an HTTP message whose headers tell the size and the orientation of a
/// picture, and whose body is that picture, encoded.
class FrameMessage {
public:
  using DidComplete = std::function<void(bool success, FrameMessage& message)>;

  explicit FrameMessage(FrameWorkshop& workshop, const BridgeRules& rules = mainBridge);

  std::shared_ptr<PixelBuffer> imageBuffer;
  /// Called once, when the frame is whole, or can't become one.
  DidComplete didComplete;
  /// 1 to 8, as picture files tell it.
  std::int64_t imageOrientation = 0;

  /// Takes the next bytes of the stream. \returns how many are missing for the frame; 0 when it is
  /// complete, and -1 while its header is incomplete, or when that makes no frame
  std::ptrdiff_t appendBytes(const std::uint8_t* buffer, std::size_t length);
  /// How many bytes at the end of what was taken last are of the next frame.
  std::size_t surplus() const { return _surplus; }
  bool isComplete() const { return _isComplete; }

private:
  std::ptrdiff_t complete(bool success, std::size_t surplus, std::ptrdiff_t result);
  std::int64_t header(const char* name, bool& isThere) const;
  bool unwrapMessage(const HTTPMessage& message);

  FrameWorkshop& _workshop;
  const BridgeRules& _rules;
  std::size_t _surplus = 0;
  bool _isComplete = false;
};

/// The older bridge's.
class Message final : public FrameMessage {
public:
  explicit Message(FrameWorkshop& workshop) : FrameMessage(workshop, olderBridge) {}
};

}  // namespace kestrova
