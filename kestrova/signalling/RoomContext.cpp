#include <kestrova/signalling/RoomContext.h>

#include <utility>

namespace kestrova {

RoomContext::RoomContext(RoomClientOptions roomOptions)
    : options(std::move(roomOptions)),
      sending(options.sending),
      connections(options.connections),
      platform(Platform::current()),
      socketRequestHandler(std::make_shared<SocketRequestHandler>(options.meeting, connections)),
      stateQueue(SerialQueue::make("com.kestrova.roomclient.state")),
      _requestQueue(SerialQueue::make("com.kestrova.roomclient.requests")) {}

std::shared_ptr<RoomClientDelegate> RoomContext::delegate() const {
  std::scoped_lock held(_lock);
  return _delegate.lock();
}

void RoomContext::setDelegate(std::weak_ptr<RoomClientDelegate> delegate) {
  std::scoped_lock held(_lock);
  _delegate = std::move(delegate);
}

std::shared_ptr<const FileUpload> RoomContext::fileUpload() const {
  std::scoped_lock held(_lock);
  return _fileUpload;
}

void RoomContext::setFileUpload(std::shared_ptr<const FileUpload> fileUpload) {
  std::scoped_lock held(_lock);
  _fileUpload = std::move(fileUpload);
}

std::shared_ptr<KestrovaTelemetry> RoomContext::kestrovaOTEL() const {
  std::scoped_lock held(_lock);
  return _kestrovaOTEL;
}

void RoomContext::setKestrovaOTEL(std::shared_ptr<KestrovaTelemetry> telemetry) {
  std::scoped_lock held(_lock);
  _kestrovaOTEL.swap(telemetry);
}

std::shared_ptr<TraceOutput> RoomContext::exchangeBackendLog(std::shared_ptr<TraceOutput> output) {
  std::scoped_lock held(_lock);
  return std::exchange(_backendLog, std::move(output));
}

void RoomContext::afterRequests(Work work) const {
  _requestQueue->async([handler = socketRequestHandler, work = std::move(work)]() mutable {
    handler->afterEmits(std::move(work));
  });
}

bool RoomContext::joined() const {
  return stateQueue->sync([this] { return _joined; });
}

void RoomContext::setJoined(bool joined) {
  stateQueue->sync([this, joined] { _joined = joined; });
}

void reportFailure(const RoomContext& context, const KestrovaError& error) {
  if (context.connections->isOver()) return;
  if (const auto delegate = context.delegate()) delegate->onError(error);
}

void removeStreams(const std::shared_ptr<RoomContext>& context, std::vector<std::string> ids) {
  // Each by itself: the application's loop is not held up by how many there were.
  for (auto& id : ids)
    onMain(context, [id = std::move(id)](RoomContext&, RoomClientDelegate& meeting) {
      meeting.removeStream(id);
    });
}

}  // namespace kestrova
