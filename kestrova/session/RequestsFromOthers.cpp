#include <kestrova/session/RequestsFromOthers.h>

#include <utility>

namespace kestrova {

bool RequestsFromOthers::allows(const char* methodName) {
  const auto validator = _validator.lock();
  return validator && validator->allows(methodName);
}

void RequestsFromOthers::enableMicRequested(const std::optional<std::string>& participantId) {
  auto accept = [weak = weak_from_this()](const AcceptMediaRequest::Stream& stream) {
    const auto self = weak.lock();
    if (self && self->allows("unmuteMic")) self->_media->microphone->turnOn(stream);
  };
  _context->emit([participantId, accept](auto& listener) {
    listener.onMicRequested(participantId, accept, [] {});
  });
}

void RequestsFromOthers::enableWebcamRequested(const std::optional<std::string>& participantId,
                                               std::optional<CameraPosition> cameraPosition) {
  auto accept = [weak = weak_from_this(),
                 cameraPosition](const AcceptMediaRequest::Stream& stream) {
    const auto self = weak.lock();
    if (!self || !self->allows("enableWebcam")) return;
    if (cameraPosition) self->_media->camera->selectPosition(*cameraPosition);
    self->_media->camera->turnOn(stream);
  };
  _context->emit([participantId, accept](auto& listener) {
    listener.onWebcamRequested(participantId, accept, [] {});
  });
}

void RequestsFromOthers::disableMicRequested() {
  if (!_context->connections->isOver()) _media->microphone->turnOff();
}

void RequestsFromOthers::disableWebcamRequested() {
  if (!_context->connections->isOver()) _media->camera->turnOff();
}

void RequestsFromOthers::entryRequested(const Dictionary& data) {
  const auto id = text(data, "id");
  if (!id) return;
  const auto respond = [weak = weak_from_this(), id = *id](const char* decision) {
    return [weak, id, decision] {
      if (const auto self = weak.lock()) self->respondEntry(id, decision);
    };
  };
  _context->emit([id = *id, name = text(data, "name", ""), allow = respond("allowed"),
                  deny = respond("denied")](auto& listener) {
    listener.onEntryRequested(id, name, allow, deny);
  });
}

void RequestsFromOthers::mediaRelayRequestReceived(const std::string& participantId,
                                                   const std::string& meetingId,
                                                   const std::string& displayName) {
  const auto respond = [services = std::weak_ptr(_services), participantId,
                        meetingId](const char* decision) {
    return [services, participantId, meetingId, decision] {
      if (const auto controls = services.lock())
        controls->handleRelayRequestResponse(decision, participantId, meetingId);
    };
  };
  _context->emit([participantId, meetingId, displayName, accept = respond("accepted"),
                  reject = respond("rejected")](auto& listener) {
    listener.onMediaRelayRequestReceived(participantId, meetingId, displayName, accept, reject);
  });
}

void RequestsFromOthers::respondEntry(const std::string& peerId, const std::string& decision) {
  if (!allows("respondEntry")) return;
  const auto client = _context->roomClient();
  client->inOrder(client->respondEntry(peerId, decision));
}

}  // namespace kestrova
