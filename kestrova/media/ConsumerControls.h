#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/platform/Task.h>
#include <kestrova/signalling/RoomContext.h>

#include <functional>
#include <memory>
#include <string>

namespace kestrova {

/// Asks the service to pause, resume or thin out one of the streams that it sends here.
///
/// Nothing changes on this side by asking: the service answers with events that do. Awaiting one of
/// these waits for the service's answer. A refusal is traced and reported through `onError`. Any
/// thread.
class ConsumerControls : public std::enable_shared_from_this<ConsumerControls> {
public:
  explicit ConsumerControls(std::shared_ptr<RoomContext> context);

  Task<void> pauseConsumer(std::string id);
  Task<void> resumeConsumer(std::string id);
  /// Asks for other layers of a webcam. \param onRefused called before the failure is reported
  Task<void> setQuality(VideoQuality quality, std::string consumerId, std::string participantId,
                        std::function<void()> onRefused);

private:
  struct ConsumerRequest;
  Task<void> ask(const ConsumerRequest& row, std::string consumerId);

  const std::shared_ptr<RoomContext> _context;
};

}  // namespace kestrova
