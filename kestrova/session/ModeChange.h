#pragma once

#include <kestrova/session/MediaControls.h>
#include <kestrova/session/MeetingContext.h>

#include <memory>

namespace kestrova {

/// Changes the local participant's mode: stops what the new mode must not send, has the room client
/// change transports and ask the service, and starts what the new mode may send, as wished.
///
/// Changes are carried out one after the other, and none while a connection is being joined.
class ModeChange : public std::enable_shared_from_this<ModeChange> {
public:
  ModeChange(std::shared_ptr<MeetingContext> context, std::shared_ptr<MediaControls> media)
      : _context(std::move(context)), _media(std::move(media)) {}

  /// The guard has let it through. Returns at once; a failure leaves the mode as it was.
  void changeMode(Mode mode);

private:
  Task<void> change(Mode mode);

  const std::shared_ptr<MeetingContext> _context;
  const std::shared_ptr<MediaControls> _media;
};

}  // namespace kestrova
