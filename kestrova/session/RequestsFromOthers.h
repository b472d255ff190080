#pragma once

#include <kestrova/model/MeetingAction.h>
#include <kestrova/session/MediaControls.h>
#include <kestrova/session/MeetingContext.h>
#include <kestrova/session/ServiceControls.h>

#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// What others ask of the local participant: microphone, camera, entry, a relay. What needs consent
/// goes to the listeners with the actions that answer it; the actions may be called at any time,
/// from any thread, and do nothing once the meeting is gone.
class RequestsFromOthers : public std::enable_shared_from_this<RequestsFromOthers> {
public:
  RequestsFromOthers(std::shared_ptr<MeetingContext> context, std::shared_ptr<MediaControls> media,
                     std::shared_ptr<ServiceControls> services)
      : _context(std::move(context)), _media(std::move(media)), _services(std::move(services)) {}

  void setMeetingActionValidator(std::weak_ptr<MeetingActionValidating> validator) {
    _validator = std::move(validator);
  }

  void enableMicRequested(const std::optional<std::string>& participantId);
  void enableWebcamRequested(const std::optional<std::string>& participantId,
                             std::optional<CameraPosition> cameraPosition);
  /// Needs no consent, and holds from the moment that the service has taken the join, though the
  /// application may not have heard of it yet.
  void disableMicRequested();
  void disableWebcamRequested();
  void entryRequested(const Dictionary& data);
  /// Another meeting asks to be seen and heard here.
  void mediaRelayRequestReceived(const std::string& participantId, const std::string& meetingId,
                                 const std::string& displayName);

private:
  bool allows(const char* methodName);
  void respondEntry(const std::string& peerId, const std::string& decision);

  const std::shared_ptr<MeetingContext> _context;
  const std::shared_ptr<MediaControls> _media;
  const std::shared_ptr<ServiceControls> _services;
  std::weak_ptr<MeetingActionValidating> _validator;  // set once, before the meeting is used
};

}  // namespace kestrova
