#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/PubSubMessage.h>

namespace kestrova {

PubSubMessage PubSubMessage::fromJson(const Dictionary& json) {
  PubSubMessage made{.id = text(json, "id", ""),
                     .topic = text(json, "topic", ""),
                     .message = text(json, "message", ""),
                     .senderId = text(json, "senderId", ""),
                     .senderName = text(json, "senderName", ""),
                     .timestamp = text(json, "timestamp", ""),
                     .payload = {},
                     .sendOnly = {}};
  if (const auto* payload = dictionary(json, "payload")) made.payload = *payload;
  if (const auto* sendOnly = list(json, "sendOnly")) {
    for (const auto& entry : *sendOnly) {
      if (!entry.is_string()) {  // no list of texts
        made.sendOnly.clear();
        break;
      }
      made.sendOnly.emplace_back(entry.get_string());
    }
  }
  return made;
}

PubSubMessage PubSubMessage::fromFastws(std::string_view topic, const FastwsServerMessage& fastws) {
  PubSubMessage made{.id = std::string(fastws.messageId),
                     .topic = std::string(topic),
                     .message = std::string(fastws.message),
                     .senderId = std::string(fastws.senderId),
                     .senderName = std::string(fastws.senderName),
                     .timestamp = std::string(fastws.timestamp),
                     .payload = {},
                     .sendOnly = {fastws.sendOnly.begin(), fastws.sendOnly.end()}};
  if (!fastws.payload.empty()) made.payload = parseDictionary(textOf(fastws.payload));
  return made;
}

}  // namespace kestrova
