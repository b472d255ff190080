#pragma once

#include <kestrova/session/MeetingCore.h>

#include "TestPlatform.h"
#include <memory>

namespace kestrova::test {

/// A room client whose socket stands, for tests that call its operations themselves. The meeting
/// behind it is real, but was not asked to join.
struct TestRoom {
  explicit TestRoom(TestPlatform& platform) {
    platform.run(client->connect());
    platform.service->socket()->open();
    platform.pump();
  }

  const std::shared_ptr<MeetingCore> core = MeetingCore::make(std::make_shared<MeetingContext>(
      MeetingSettings{.id = "room", .accessToken = "secret-token"},
      std::make_shared<Participant>(Participant::Options{.id = "me", .isLocal = true}),
      std::make_shared<MediaConfigStore>(VideoConfigSnapshot{}, AudioConfigSnapshot{}),
      std::make_shared<LocalSending>(Mode::SEND_AND_RECV)));
  const std::shared_ptr<RoomClient> client = core->context->roomClient();
  Connection connection() const { return core->context->connections->current(); }
};

}  // namespace kestrova::test
