#pragma once

#include <kestrova/realtime/PubSubSubscribers.h>
#include <kestrova/realtime/RealtimeMeeting.h>
#include <kestrova/signalling/RoomClient.h>

#include <memory>
#include <string_view>
#include <utility>

namespace kestrova {

/// What the two routes of topic messages share.
struct PubSubRouting {
  PubSubRouting(std::shared_ptr<RoomClient> client, std::weak_ptr<RealtimeMeeting> owner)
      : roomClient(std::move(client)), meeting(std::move(owner)) {}

  const std::shared_ptr<RoomClient> roomClient;
  const std::weak_ptr<RealtimeMeeting> meeting;
  PubSubSubscribers subscribers;

  /// \throws PubSubError when the meeting isn't joined, is reconnecting or is over; the meeting's
  /// listeners hear of it, too
  void assertMeetingActive(std::string_view methodName) const;
};

}  // namespace kestrova
