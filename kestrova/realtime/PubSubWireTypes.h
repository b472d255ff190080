#pragma once

#include <kestrova/realtime/Bytes.h>
#include <kestrova/realtime/FastwsMessages.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrova {

/// What a subscribe carries.
struct FastwsSubscribeParams {
  std::string topic;
  std::string peerId;
  std::int32_t oldMessageLimit = 0;
  std::string realtimeOverflow;
  std::int32_t queueSize = 0;
  std::int32_t newMessageLimit = 0;
  std::string requestId;

  /// Refers to these fields.
  FastwsSubscribe makeSubscribe() const {
    return {topic,     peerId,    oldMessageLimit, realtimeOverflow,
            queueSize, requestId, newMessageLimit};
  }
};

/// What a publish carries.
struct FastwsPublishParams {
  std::string topic;
  std::string message;
  Bytes payload;
  std::vector<std::string> sendOnly;
  bool persist = false;
  std::string senderId;
  std::string senderName;
  std::string timestamp;
  std::string messageId;
  std::string requestId;

  /// Refers to these fields.
  FastwsPublish makePublish() const {
    return {topic,    payload,    message, sendOnly,  timestamp,
            senderId, senderName, persist, messageId, requestId};
  }
};

/// Why an operation on topics failed.
struct PubSubWireError : std::runtime_error {
  using std::runtime_error::runtime_error;

  static constexpr const char* timedOut = "operation has timed out";
  static constexpr const char* disconnected = "PubSub is disconnected.";
  static constexpr const char* closed =
      "PubSub is not available because the meeting is in disconnected state.";
  static constexpr const char* refused = "PubSub request failed";
  static constexpr const char* tooLarge = "the message is too large";
};

}  // namespace kestrova
