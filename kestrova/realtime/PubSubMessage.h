#pragma once

#include <kestrova/platform/Values.h>

#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

struct FastwsServerMessage;

/// One message to a topic, as a listener gets it.
struct PubSubMessage {
  std::string id;
  std::string topic;
  std::string message;
  std::string senderId;
  std::string senderName;
  /// When it was published, by the sender's clock: ISO 8601 of this library's own messages.
  std::string timestamp;
  /// What the sender added to the text; empty for anything that is no JSON object.
  Dictionary payload;
  /// To whom it was restricted, by participant id; empty: to nobody in particular.
  std::vector<std::string> sendOnly;

  /// A key that is missing or of another type leaves the field empty.
  static PubSubMessage fromJson(const Dictionary& json);
  static PubSubMessage fromFastws(std::string_view topic, const FastwsServerMessage& fastws);
};

}  // namespace kestrova
