#pragma once

#include <kestrova/realtime/Bytes.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::test {

// The server's end of the protocol of topic messages, as far as a test needs it.

/// One frame of the client: which kind of message, and its fields by number.
struct ClientFrame {
  enum Kind : std::uint64_t { subscribe = 1, unsubscribe, publish, getHistory, pong };

  explicit ClientFrame(ByteView frame);
  std::string text(std::uint64_t field) const;
  std::int64_t number(std::uint64_t field) const;
  /// The field, different for each kind, that an acknowledgement names.
  std::string requestId() const;

  std::uint64_t kind = 0;
  std::map<std::uint64_t, std::vector<std::string>> texts;
  std::map<std::uint64_t, std::uint64_t> numbers;
};

/// A message of a batch; the fields that tests look at.
struct TopicMessage {
  std::string message;
  std::uint64_t seqNum = 0;
  std::string payload;
  std::string senderId = "bob";
};

struct BatchFrame {
  std::string topic;
  std::vector<TopicMessage> messages;
  bool history = false;
  bool isLast = false;
  std::string requestId;
};

Bytes encodeMessage(const TopicMessage& message);
Bytes batchFrame(const BatchFrame& batch);
Bytes batchFrame(std::string_view topic, const std::vector<Bytes>& entries);
Bytes ackFrame(std::string_view requestId, bool ok = true, std::string_view error = {},
               std::string_view messageId = {});
Bytes welcomeFrame(std::uint64_t pingIntervalMs);
Bytes pingFrame(std::uint64_t seq);

}  // namespace kestrova::test
