#pragma once

#include <kestrova/platform/Mediasoup.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>

namespace kestrova {

/// Silences a consumer that was taken out of the registry, closes it and ends its span. The engine
/// is waited for, a few ms.
inline void closeConsumer(RoomContext& context, const std::shared_ptr<Consumer>& consumer) {
  consumer->track()->setEnabled(false);
  consumer->setDelegate({});
  if (!consumer->closed()) consumer->close();
  context.spans.endConsumer(consumer->id());
}

}  // namespace kestrova
