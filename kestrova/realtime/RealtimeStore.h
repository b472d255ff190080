#pragma once

#include <kestrova/model/ListenerHandle.h>
#include <kestrova/platform/Task.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace kestrova {

class MeetingActionValidating;
class RoomClient;

/// Who observes a key hears of its changes, on the main queue.
class RealtimeStoreEventListener {
public:
  virtual ~RealtimeStoreEventListener() = default;
  /// \param value nothing when the key was cleared
  /// \param updatedBy whose doing it was, by participant id; this participant's own are told, too
  virtual void onValueChanged(const std::string& /*key*/,
                              const std::optional<std::string>& /*value*/,
                              const std::string& /*updatedBy*/) {}
};

/// The same as a function. The program keeps the listener: the store holds it weakly.
[[nodiscard("it is held weakly: keep it")]] std::shared_ptr<RealtimeStoreEventListener>
makeStoreListener(
    std::function<void(const std::string& key, const std::optional<std::string>& value,
                       const std::string& updatedBy)>
        onValueChanged);

/// Why an operation on the store failed; `what()` says it for people.
class RealtimeStoreError : public std::runtime_error {
public:
  enum class Kind {
    operationFailed,
    meetingNotJoined,
    meetingReconnecting,
    meetingAlreadyLeft,
    keyNotFound,
    invalidKey,
    valueTooLarge
  };
  /// \param carried the text of `operationFailed`; the others have their own
  explicit RealtimeStoreError(Kind kind, const std::string& carried = {});
  Kind kind() const { return _kind; }

private:
  Kind _kind;
};

/// Texts by key, shared by everybody in the meeting and kept by the service: what
/// `Meeting::realtimeStore` gives. Any thread. Observers stay through a lost connection and a move
/// to another meeting; what changed meanwhile isn't told, and can be asked for with `get`.
class RealtimeStore {
public:
  using Listener = std::shared_ptr<RealtimeStoreEventListener>;
  /// The longest value, in bytes of UTF-8.
  static constexpr std::size_t mostValueBytes = 1024;

  RealtimeStore(std::shared_ptr<RoomClient> roomClient,
                std::weak_ptr<MeetingActionValidating> validator);
  ~RealtimeStore();
  RealtimeStore(const RealtimeStore&) = delete;
  RealtimeStore& operator=(const RealtimeStore&) = delete;

  // All four throw RealtimeStoreError.

  /// \param value nothing clears the key
  Task<void> set(std::string key, std::optional<std::string> value);
  /// Nothing for a key that isn't there; a number or a boolean that somebody else put there as
  /// text.
  Task<std::optional<std::string>> get(std::string key);
  /// Has `forListener` hear of every change of the key. It is held weakly.
  Task<void> observe(std::string key, const Listener& forListener);
  template <HeldByCallerOnly T>
  [[deprecated("listeners are held weakly, and this one goes at once: name it")]]  //
  Task<void>
  observe(std::string key, std::shared_ptr<T>&& forListener) {
    return observe(std::move(key), std::as_const(forListener));
  }
  Task<void> stopObserving(std::string key, const Listener& forListener);

  /// For the meeting: it has been joined again, or another one has; observers stay.
  void joinedAgain();
  /// For the meeting: the service says that a value has changed.
  void onValueChanged(const std::string& key, const std::optional<std::string>& value,
                      const std::string& updatedBy);

private:
  struct State;
  const std::shared_ptr<State> _state;
};

}  // namespace kestrova
