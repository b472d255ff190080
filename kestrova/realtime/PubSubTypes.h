#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kestrova {

/// What the service does with messages for which a subscriber is too slow.
enum class RealtimeOverflow {
  queue,  ///< keeps them, up to a bound, and then drops the oldest
  drop    ///< drops them
};
/// "queue" or "drop".
std::string_view rawValue(RealtimeOverflow overflow);

struct PubSubSubscribeOptions {
  /// How many stored messages to replay, the newest ones; without it there is no limit.
  std::optional<std::int64_t> oldMessageLimit = {};
  RealtimeOverflow realtimeOverflow = RealtimeOverflow::queue;
  /// The bound of the service's queue for this subscriber; the service's own without it.
  std::optional<std::int64_t> maxQueue = {};
  /// The service's limit on new messages; 0: none.
  std::int64_t newMessageLimit = 0;

  /// \throws PubSubError of the first rule that is broken
  void validated() const;
};

/// Of one batch of history: whether it is the last of its replay.
struct PubSubHistoryInfo {
  bool isLast = false;
};

/// How many messages of a topic didn't arrive.
struct PubSubMessageDropInfo {
  std::int64_t droppedCount = 0;
};

/// Why an operation on topics failed; `what()` says it for people.
class PubSubError : public std::runtime_error {
public:
  enum class Kind {
    invalidOldMessageLimit,
    invalidMaxQueue,
    invalidNewMessageLimit,
    publishFailed,
    subscribeFailed,
    unsubscribeFailed,
    maxQueueNotAllowedWithDrop,
    operationTimeout,
    noSubscribedListener,
    alreadySubscribed,
    meetingNotJoined,
    meetingReconnecting,
    meetingAlreadyLeft
  };

  /// \param carried the text of one of the three failures; the others have their own
  explicit PubSubError(Kind kind, const std::string& carried = {});
  /// Of an option that makes no sense.
  PubSubError(Kind kind, std::int64_t value);

  Kind kind() const { return _kind; }

private:
  Kind _kind;
};

/// A failure of a service that has no topic server of its own, as it told it.
struct PlatformError : std::runtime_error {
  PlatformError(std::string errorDomain, std::int64_t errorCode, const std::string& description)
      : std::runtime_error(description), domain(std::move(errorDomain)), code(errorCode) {}
  std::string domain;
  std::int64_t code;
};

}  // namespace kestrova
