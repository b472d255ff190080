#pragma once

#include <kestrova/media/Consuming.h>
#include <kestrova/signalling/Events.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>

namespace kestrova {

/// Where every push of the signalling server ends: reads the payload, has the media side do its
/// part, and tells the meeting. A required key that is missing or mistyped ends the event silently.
///
/// Runs on the socket's queue, so that events are handled in the order in which they came.
class RemoteEventDispatcher {
public:
  RemoteEventDispatcher(std::shared_ptr<RoomContext> context, std::shared_ptr<Consuming> consuming,
                        std::shared_ptr<Transports> transports);

  /// \param response the whole notification
  void handle(RemoteEvent event, const Dictionary& response) const;

private:
  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<Consuming> _consuming;
  const std::shared_ptr<Transports> _transports;
};

}  // namespace kestrova
