#include <kestrova/media/BroadcastSocketConnection.h>
#include <kestrova/media/SocketConnectionFrameReader.h>
#include <kestrova/tracing/Trace.h>

#include <algorithm>
#include <string>
#include <utility>

namespace kestrova {

SocketConnectionFrameReader::SocketConnectionFrameReader(std::unique_ptr<PictureRenderer> renderer,
                                                         const BridgeRules& rules)
    : _rules(rules) {
  _workshop.renderer = std::move(renderer);
}

void SocketConnectionFrameReader::connection(
    const std::shared_ptr<BroadcastSocketConnection>& connection) {
  std::scoped_lock held(_lock);
  _connection = connection;
}

int SocketConnectionFrameReader::rotationOf(std::int64_t orientation) {
  switch (orientation) {
    case 3:
      return 180;
    case 6:
      return 270;
    case 8:
      return 90;
    default:
      return 0;
  }
}

void SocketConnectionFrameReader::readBytes(InputStream& from) {
  if (!_message) beginMessage();
  const auto wanted = static_cast<std::size_t>(std::min(_readLength, largestRead));
  const auto read = from.read(_bytes.data(), wanted);
  if (read < 0 && *_rules.readFailed) traceError(_rules.readFailed);
  if (read > 0) append(_bytes.data(), static_cast<std::size_t>(read));
}

void SocketConnectionFrameReader::beginMessage() {
  _message.emplace(_workshop, _rules);
  _readLength = largestRead;
  _message->didComplete = [weak = weak_from_this()](bool success, FrameMessage& message) {
    if (const auto self = weak.lock()) self->complete(success, message);
  };
}

void SocketConnectionFrameReader::append(const std::uint8_t* bytes, std::size_t length) {
  while (length > 0) {
    if (!_message) beginMessage();
    _readLength = _message->appendBytes(bytes, length);
    const bool isUnknown = _readLength == 0 ? !_rules.keepsEmptyReadLength
                                            : _readLength < 0 || _readLength > largestRead;
    if (isUnknown) _readLength = largestRead;
    if (!_message->isComplete()) return;
    // What one read brought of the next frame begins that.
    const auto surplus = _message->surplus();
    _message.reset();
    bytes += length - surplus;
    length = surplus;
  }
}

void SocketConnectionFrameReader::complete(bool success, FrameMessage& message) {
  if (!success || !message.imageBuffer || isStopped() || !didCapture) return;
  didCapture(message.imageBuffer, rotationOf(message.imageOrientation));
}

void SocketConnectionFrameReader::stream(InputStream& stream, StreamEvent handle,
                                         const char* error) {
  const auto tell = _rules.logsStream ? traceDebug : trace;
  switch (handle) {
    case StreamEvent::openCompleted:
      return tell(_rules.streamOpened, {}, {});
    case StreamEvent::hasBytesAvailable:
      return readBytes(stream);
    case StreamEvent::errorOccurred:
      tell([&] { return std::string(_rules.streamError) + error; }, {}, {});
      return end();
    case StreamEvent::endEncountered:
      if (*_rules.streamEnded) tell(_rules.streamEnded, {}, {});
      return end();
  }
}

void SocketConnectionFrameReader::streamIsQuiet() {
  if (!isStopped() && isQuiet) isQuiet();
}

void SocketConnectionFrameReader::end() {
  stopCapture();
  std::shared_ptr<BroadcastSocketConnection> connection;
  {
    std::scoped_lock held(_lock);
    connection = _connection.lock();
  }
  if (connection) connection->close();
  if (didEnd) didEnd();
}

void SocketConnectionFrameReader::stopCapture() {
  std::scoped_lock held(_lock);
  _isStopped = true;
}

bool SocketConnectionFrameReader::isStopped() const {
  std::scoped_lock held(_lock);
  return _isStopped;
}

}  // namespace kestrova
