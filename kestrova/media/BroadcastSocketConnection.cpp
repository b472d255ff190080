#include <kestrova/media/BroadcastSocketConnection.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

/// One client's bytes. Shared by the calls of the loop, so that a close in the middle of one leaves
/// it whole.
class BroadcastSocketConnection::Input final : public InputStream {
public:
  Input(std::shared_ptr<UnixSockets> sockets, int client)
      : handle(client), _sockets(std::move(sockets)) {}
  std::ptrdiff_t read(std::uint8_t* buffer, std::size_t maxLength) override {
    const auto count = _sockets->read(handle, buffer, maxLength);
    hasEnded = count == 0 && maxLength > 0;
    error = count < 0 ? _sockets->lastError() : std::string();
    return count;
  }
  const int handle;
  bool hasEnded = false;
  std::string error;

private:
  const std::shared_ptr<UnixSockets> _sockets;
};

std::shared_ptr<BroadcastSocketConnection> BroadcastSocketConnection::make(
    std::string filePath, std::weak_ptr<StreamDelegate> delegate,
    std::shared_ptr<UnixSockets> sockets, const BridgeRules& rules) {
  if (!sockets || filePath.empty()) return nullptr;
  return std::shared_ptr<BroadcastSocketConnection>(new BroadcastSocketConnection(
      std::move(filePath), std::move(delegate), std::move(sockets), rules));
}

BroadcastSocketConnection::BroadcastSocketConnection(std::string path,
                                                     std::weak_ptr<StreamDelegate> delegate,
                                                     std::shared_ptr<UnixSockets> sockets,
                                                     const BridgeRules& rules)
    : filePath(std::move(path)),
      streamDelegate(std::move(delegate)),
      _sockets(std::move(sockets)),
      _rules(rules) {}

BroadcastSocketConnection::~BroadcastSocketConnection() {
  close();
}

bool BroadcastSocketConnection::isOpen() const {
  return shouldKeepRunning();
}

bool BroadcastSocketConnection::shouldKeepRunning() const {
  std::scoped_lock held(_closeLock);
  return _shouldKeepRunning;
}

bool BroadcastSocketConnection::open() {
  if (isOpen()) return true;
  if (openSocket()) return true;
  close();
  return false;
}

bool BroadcastSocketConnection::openSocket() {
  const auto fail = [](const char* line) {
    if (*line) traceError(line);
    return false;
  };
  if (filePath.size() > longestPath) return fail(_rules.pathTooLong);
  const int handle = _sockets->socket();
  if (handle < 0) return fail(_rules.bindFailed);
  const auto address = filePath.substr(0, longestAddress);
  {
    std::scoped_lock held(_closeLock);
    _socketHandle = handle;
  }
  _sockets->unlink(filePath);
  if (!_sockets->bind(handle, address)) return fail(_rules.bindFailed);
  auto file = _sockets->fileId(address);
  {
    std::scoped_lock held(_closeLock);
    _boundPath = address;
    _boundFile.swap(file);
  }
  if (_sockets->fileId(filePath).empty() || !_sockets->listen(handle, backlog))
    return fail(_rules.listenFailed);
  auto loop = _sockets->makeLoop();
  if (!loop) return fail(_rules.listenFailed);
  std::scoped_lock held(_closeLock);
  _shouldKeepRunning = true;
  _networkQueue = std::move(loop);
  _networkQueue->watch(handle, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->acceptClient();
  });
  return true;
}

void BroadcastSocketConnection::acceptClient() {
  int listening = -1;
  bool isTaken = false;
  {
    std::scoped_lock held(_closeLock);
    if (!_shouldKeepRunning) return;
    listening = _socketHandle;
    isTaken = _inputStream != nullptr;
  }
  const int client = _sockets->accept(listening);
  if (client < 0) {
    if (*_rules.acceptFailed) traceError(_rules.acceptFailed);
    return;
  }
  if (isTaken) return _sockets->close(client);
  setupStreams(client);
}

void BroadcastSocketConnection::setupStreams(int client) {
  const auto delegate = streamDelegate.lock();
  std::shared_ptr<Input> input;
  {
    std::scoped_lock held(_closeLock);
    if (_shouldKeepRunning && delegate) {
      input = _inputStream = std::make_shared<Input>(_sockets, client);
      _networkQueue->watch(client, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->readStream();
      });
      _networkQueue->whenQuiet(quietTime, [weak = streamDelegate] {
        if (const auto listener = weak.lock()) listener->streamIsQuiet();
      });
    }
  }
  if (!input) return _sockets->close(client);
  delegate->stream(*input, StreamEvent::openCompleted, "");
}

void BroadcastSocketConnection::readStream() {
  const auto delegate = streamDelegate.lock();
  std::shared_ptr<Input> input;
  {
    std::scoped_lock held(_closeLock);
    input = _inputStream;
  }
  if (!input) return;
  if (!delegate) return close();
  delegate->stream(*input, StreamEvent::hasBytesAvailable, "");
  if (input->hasEnded)
    delegate->stream(*input, StreamEvent::endEncountered, "");
  else if (!input->error.empty())
    delegate->stream(*input, StreamEvent::errorOccurred, input->error.c_str());
}

void BroadcastSocketConnection::close() {
  std::unique_ptr<SocketLoop> loop;
  std::shared_ptr<Input> input;
  int handle = -1;
  std::string bound;
  std::string file;
  {
    std::scoped_lock held(_closeLock);
    _shouldKeepRunning = false;
    loop = std::move(_networkQueue);
    input = std::move(_inputStream);
    handle = std::exchange(_socketHandle, -1);
    bound.swap(_boundPath);
    file.swap(_boundFile);
  }
  // A read that is under way ends before its handle is closed.
  if (loop && input) loop->release(input->handle);
  if (loop && handle >= 0)
    loop->release(handle);
  else if (handle >= 0)
    _sockets->close(handle);
  // By now it may be that of somebody else, who listens there.
  if (!file.empty() && _sockets->fileId(bound) == file) _sockets->unlink(bound);
}

}  // namespace kestrova
