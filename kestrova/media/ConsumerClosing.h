#pragma once

#include <kestrova/platform/Mediasoup.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>

namespace kestrova {

/// What is left to do for a consumer that was taken out of the registry when its transport is
/// closed next, which closes it, too, and at a fraction of the cost.
inline void letGoOfConsumer(RoomContext& context, const std::shared_ptr<Consumer>& consumer) {
  if (context.e2eeManager) context.e2eeManager->closeDecryption(consumer);
  consumer->setDelegate({});
  context.spans.endConsumer(consumer->id());
}

/// Silences and closes a consumer that was taken out of the registry, and ends its span.
inline void closeConsumer(RoomContext& context, const std::shared_ptr<Consumer>& consumer) {
  consumer->track()->setEnabled(false);
  if (!consumer->closed()) consumer->close();
  letGoOfConsumer(context, consumer);
}

}  // namespace kestrova
