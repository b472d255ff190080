#include <kestrova/media/FrameMessage.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

FrameMessage::FrameMessage(FrameWorkshop& workshop, const BridgeRules& rules)
    : _workshop(workshop), _rules(rules) {
  _workshop.framedMessage.reset();
}

std::ptrdiff_t FrameMessage::appendBytes(const std::uint8_t* buffer, std::size_t length) {
  auto& message = _workshop.framedMessage;
  message.appendBytes({buffer, length});
  // Where no frame can come of it, what stands behind the header may be one.
  if (message.isMalformed())
    return complete(false, message.isHeaderComplete() ? message.body().size() : 0, -1);
  if (!message.isHeaderComplete()) return -1;

  bool isThere = true;
  const auto contentLength = header("Content-Length", isThere);
  if (!isThere || contentLength < 0 || contentLength > HTTPMessage::longestBody)
    return complete(false, message.body().size(), -1);
  const auto missing = contentLength - static_cast<std::int64_t>(message.body().size());
  if (missing > 0) return static_cast<std::ptrdiff_t>(missing);
  const auto surplus = static_cast<std::size_t>(-missing);
  message.endBody(static_cast<std::size_t>(contentLength));
  return complete(unwrapMessage(message), surplus, 0);
}

std::ptrdiff_t FrameMessage::complete(bool success, std::size_t surplus, std::ptrdiff_t result) {
  _workshop.framedMessage.reset();
  _surplus = surplus;
  _isComplete = true;
  if (const auto tell = std::exchange(didComplete, nullptr)) tell(success, *this);
  return result;
}

std::int64_t FrameMessage::header(const char* name, bool& isThere) const {
  const auto value = _workshop.framedMessage.headerValue(name);
  if (!value && !_rules.readsMissingAsZero) isThere = false;
  return value.value_or(0);
}

bool FrameMessage::unwrapMessage(const HTTPMessage& message) {
  bool isThere = true;
  const auto width = header("Buffer-Width", isThere);
  const auto height = header("Buffer-Height", isThere);
  const auto orientation = header("Buffer-Orientation", isThere);
  if (!isThere || orientation < 0) return false;
  imageOrientation = orientation;
  imageBuffer = _workshop.buffers.make(width, height);
  if (!imageBuffer) {
    if (*_rules.bufferFailed) traceError(_rules.bufferFailed);
    return false;
  }
  if (!_workshop.renderer || !_workshop.renderer->render(message.body(), *imageBuffer))
    imageBuffer->clear();
  return true;
}

}  // namespace kestrova
