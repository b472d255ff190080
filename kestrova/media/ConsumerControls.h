#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/platform/Task.h>
#include <kestrova/signalling/RoomContext.h>

#include <functional>
#include <memory>
#include <string>

namespace kestrova {

/// Asks the service to pause, resume or thin out what it sends to this participant.
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

  /// \param kind "audio", "video", "share" or "all"
  Task<void> pauseAllStreams(std::string kind);
  Task<void> resumeAllStreams(std::string kind);

  /// Lets the service choose what to send by what the application shows.
  Task<void> enableAdaptiveSubscription();
  Task<void> disableAdaptiveSubscription();

private:
  struct ConsumerRequest;
  struct AllStreamsRequest;
  struct AdaptiveRequest;
  Task<void> ask(const ConsumerRequest& row, std::string consumerId);
  Task<void> ask(const AllStreamsRequest& row, std::string kind);
  Task<void> ask(const AdaptiveRequest& row);

  const std::shared_ptr<RoomContext> _context;
};

}  // namespace kestrova
