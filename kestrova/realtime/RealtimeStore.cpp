#include <kestrova/model/MulticastDelegate.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/RealtimeMeeting.h>
#include <kestrova/realtime/RealtimeStore.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/RoomClient.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <array>
#include <charconv>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <vector>

namespace kestrova {

using RealtimeStoreMulticastDelegate = MulticastDelegate<RealtimeStoreEventListener>;
using StoreKind = RealtimeStoreError::Kind;

struct RealtimeStore::State {
  std::shared_ptr<RoomClient> roomClient;
  std::weak_ptr<MeetingActionValidating> meetingActionValidator;

  std::mutex lock;  // a leaf, for the fields below
  std::map<std::string, std::shared_ptr<RealtimeStoreMulticastDelegate>> listeners;
  /// Who the service is being asked for, and whether it has stopped meanwhile.
  struct Pending {
    std::weak_ptr<RealtimeStoreEventListener> listener;
    bool stopped = false;
  };
  std::map<std::string, Pending> pendingObserveKeys;
  std::set<std::string> pendingStopKeys;

  void check(std::string_view methodName, const std::string& key);
  Task<Dictionary> ask(LocalEvent request, const std::string& key,
                       SocketRequestHandler::AnswerHandler onArrival = {}) {
    return roomClient->requests()->prepareAndSendRequest(request, {{"key", key}}, std::nullopt,
                                                         std::move(onArrival));
  }
  /// Under the lock.
  void add(const std::string& key, const Listener& listener) {
    auto& delegate = listeners[key];
    if (!delegate) delegate = std::make_shared<RealtimeStoreMulticastDelegate>();
    delegate->add(listener);
  }
  bool joinsObservers(const std::string& key, const Listener& listener);
  /// The answer came. \returns whether nobody wants it any more
  bool observed(const std::string& key, bool agreed);
  bool isLastToGo(const std::string& key, const Listener& listener);
  /// Whether nobody observes the key; the service is about to be told then.
  bool isUnwanted(const std::string& key);
  bool takeUnwanted(const std::string& key);  // under the lock

  static Task<void> set(std::shared_ptr<State> self, std::string key,
                        std::optional<std::string> value);
  static Task<std::optional<std::string>> get(std::shared_ptr<State> self, std::string key);
  static Task<void> observe(std::shared_ptr<State> self, std::string key, Listener listener);
  static Task<void> stopObserving(std::shared_ptr<State> self, std::string key, Listener listener);
  static void stopLater(std::shared_ptr<State> self, std::string key);
  static Task<void> observeAgain(std::shared_ptr<State> self, std::string key);
  /// \returns the failure; empty when there was none
  static Task<std::string> tellStop(std::shared_ptr<State> self, std::string key);
};

namespace {

std::string describeStoreError(StoreKind kind, const std::string& carried) {
  switch (kind) {
    case StoreKind::operationFailed:
      break;
    case StoreKind::meetingNotJoined:
      return "You must join the meeting before using Realtime Store.";
    case StoreKind::meetingReconnecting:
      return "The meeting is reconnecting. Please try again once it reconnects.";
    case StoreKind::meetingAlreadyLeft:
      return "You have already left the meeting.";
    case StoreKind::keyNotFound:
      return "Key not found";
    case StoreKind::invalidKey:
      return "Invalid key parameter";
    case StoreKind::valueTooLarge:
      return "Payload too large: Maximum allowed size is 1024 bytes (1KB).";
  }
  return carried;
}

StoreKind kindOf(MeetingActionValidationFailure failure) {
  switch (failure) {
    case MeetingActionValidationFailure::meetingReconnecting:
      return StoreKind::meetingReconnecting;
    case MeetingActionValidationFailure::meetingAlreadyLeft:
      return StoreKind::meetingAlreadyLeft;
    case MeetingActionValidationFailure::meetingNotJoined:
      break;
  }
  return StoreKind::meetingNotJoined;
}

/// A line for the back end alone.
void report(const std::string& line, TraceAttributeList attributes = {}) {
  SdkTracer::shared().routedEvent(line, {.attributes = attributes,
                                         .targetMask = targetMasks::backendLog,
                                         .category = EventCategory::error});
}

std::optional<std::string> asText(const Value* value) {
  if (!value) return std::nullopt;
  if (const auto* found = value->if_string()) return std::string(*found);
  if (const auto* number = value->if_double()) {  // not in JSON's own notation, which is 1.5E0
    std::array<char, 400> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), *number, std::chars_format::fixed);
    return std::string(digits.begin(), end.ptr);
  }
  if (value->is_bool() || value->is_number()) return boost::json::serialize(*value);
  return std::nullopt;
}

bool isTrueLike(const Value* value) {
  if (!value) return false;
  if (value->is_bool()) return value->get_bool();
  if (value->is_number()) return value->to_number<double>() != 0;
  const auto* found = value->if_string();
  if (!found) return false;
  const auto lower = boost::algorithm::to_lower_copy(std::string(*found));
  return lower == "true" || lower == "yes" || lower == "ok" || lower == "1";
}

class StoreFunctionListener final : public RealtimeStoreEventListener {
public:
  using OnValueChanged = std::function<void(const std::string&, const std::optional<std::string>&,
                                            const std::string&)>;
  explicit StoreFunctionListener(OnValueChanged onValueChanged)
      : _call(std::move(onValueChanged)) {}
  void onValueChanged(const std::string& key, const std::optional<std::string>& value,
                      const std::string& updatedBy) override {
    if (_call) _call(key, value, updatedBy);
  }

private:
  const OnValueChanged _call;
};

}  // namespace

std::shared_ptr<RealtimeStoreEventListener> makeStoreListener(
    StoreFunctionListener::OnValueChanged onValueChanged) {
  return std::make_shared<StoreFunctionListener>(std::move(onValueChanged));
}

RealtimeStoreError::RealtimeStoreError(Kind kind, const std::string& carried)
    : std::runtime_error(describeStoreError(kind, carried)), _kind(kind) {}

// ---- The check that all four share -------------------------------------------------------------

void RealtimeStore::State::check(std::string_view methodName, const std::string& key) {
  const auto validator = meetingActionValidator.lock();
  if (!validator) throw RealtimeStoreError(StoreKind::meetingNotJoined);
  if (const auto failure = realtimeActionState(*validator, *roomClient)) {
    validator->emitMeetingActionValidationFailure(*failure, methodName);
    throw RealtimeStoreError(kindOf(*failure));
  }
  if (!key.empty() && isUtf8(key)) return;
  if (methodName == "observe") report("Error in observe() - Invalid key");
  throw RealtimeStoreError(StoreKind::invalidKey);
}

// ---- Values ------------------------------------------------------------------------------------

Task<void> RealtimeStore::State::set(std::shared_ptr<State> self, std::string key,
                                     std::optional<std::string> value) {
  self->check("set", key);
  if (value && value->size() > mostValueBytes) throw RealtimeStoreError(StoreKind::valueTooLarge);
  auto asking = self->roomClient->requests()->realtimeStoreSetValue(key, value);
  const Dictionary response = co_await std::move(asking);
  const auto status = isStatusOK(response);
  if (status.ok) co_return;
  const auto message = status.failure.empty() ? "Failed to set value" : status.failure;
  report("Error in setValue(): " + message, {{"key", key}, {"value", value.value_or("")}});
  throw RealtimeStoreError(StoreKind::operationFailed, message);
}

Task<std::optional<std::string>> RealtimeStore::State::get(std::shared_ptr<State> self,
                                                           std::string key) {
  self->check("get", key);
  auto asking = self->ask(LocalEvent::realtimeStoreGet, key);
  const Dictionary response = co_await std::move(asking);
  const auto* data = dictionary(response, "data");
  const bool isOk = data && boost::algorithm::to_lower_copy(text(*data, "status", "")) == "ok";
  if (isOk || isTrueLike(response.if_contains("ok")))
    co_return asText(data ? data->if_contains("value") : nullptr);
  std::optional<std::string> failure;
  if (data) failure = text(*data, "error");
  if (data && !failure) failure = text(*data, "message");
  report("Error in getValue(): " + jsonText(response).value_or(""), {{"key", key}});
  throw RealtimeStoreError(StoreKind::operationFailed, failure.value_or("Failed to get value"));
}

// ---- Observers ---------------------------------------------------------------------------------

/// Whether the service is telling, or being asked to tell, of this key already.
bool RealtimeStore::State::joinsObservers(const std::string& key, const Listener& listener) {
  std::scoped_lock held(lock);
  const auto found = listeners.find(key);
  const bool isObserved = found != listeners.end() && !found->second->isEmpty();
  if (!isObserved && pendingObserveKeys.try_emplace(key, Pending{listener}).second) return false;
  add(key, listener);
  return true;
}

bool RealtimeStore::State::observed(const std::string& key, bool agreed) {
  Listener listener;  // goes outside the lock
  std::scoped_lock held(lock);
  const auto pending = pendingObserveKeys.extract(key);
  if (!pending || !agreed) return false;
  listener = pending.mapped().listener.lock();
  if (listener && !pending.mapped().stopped) add(key, listener);
  return takeUnwanted(key);
}

bool RealtimeStore::State::isUnwanted(const std::string& key) {
  std::scoped_lock held(lock);
  return !pendingObserveKeys.contains(key) && takeUnwanted(key);
}

bool RealtimeStore::State::takeUnwanted(const std::string& key) {
  const auto found = listeners.find(key);
  if (found != listeners.end() && !found->second->isEmpty()) return false;
  return pendingStopKeys.insert(key).second;
}

void RealtimeStore::State::stopLater(std::shared_ptr<State> self, std::string key) {
  auto stop = [](std::shared_ptr<State> state, std::string unwanted) -> Task<void> {
    auto telling = tellStop(std::move(state), std::move(unwanted));
    co_await std::move(telling);
  };
  spawn(stop(std::move(self), std::move(key)));
}

Task<void> RealtimeStore::State::observe(std::shared_ptr<State> self, std::string key,
                                         Listener listener) {
  self->check("observe", key);
  if (!listener) throw RealtimeStoreError(StoreKind::operationFailed, "No listener was given");
  if (self->joinsObservers(key, listener)) co_return;
  listener.reset();  // it is the application's to keep
  // Before anything that the service says next, so that no change is missed.
  auto onArrival = [self, key](const Dictionary& response) {
    if (self->observed(key, isStatusOK(response).ok)) stopLater(self, key);
  };
  auto asking = self->ask(LocalEvent::realtimeStoreObserve, key, std::move(onArrival));
  const Dictionary response = co_await std::move(asking);
  const auto status = isStatusOK(response);
  if (status.ok) co_return;
  report("Error in observe() for key '" + key + "', Error: " + status.failure);
  throw RealtimeStoreError(StoreKind::operationFailed, "Failed to observe key");
}

/// A service that has forgotten this participant, or is another one, has forgotten the key.
Task<void> RealtimeStore::State::observeAgain(std::shared_ptr<State> self, std::string key) {
  auto onArrival = [self, key](const Dictionary& answer) {
    if (isStatusOK(answer).ok && self->isUnwanted(key)) stopLater(self, key);
  };
  auto asking = self->ask(LocalEvent::realtimeStoreObserve, key, std::move(onArrival));
  const Dictionary response = co_await std::move(asking);
  const auto status = isStatusOK(response);
  if (!status.ok) report("Error in observe() for key '" + key + "', Error: " + status.failure);
}

/// Takes the listener away; true when the service is to be told that nobody observes the key now.
bool RealtimeStore::State::isLastToGo(const std::string& key, const Listener& listener) {
  std::scoped_lock held(lock);
  const auto found = listeners.find(key);
  if (found != listeners.end()) {
    found->second->remove(listener);
    if (!found->second->isEmpty()) return false;
  }
  if (const auto pending = pendingObserveKeys.find(key); pending != pendingObserveKeys.end()) {
    // The answer decides: whoever the service is just being asked for may want to stay.
    const auto& asked = pending->second.listener;
    if (!asked.owner_before(listener) && !listener.owner_before(asked))
      pending->second.stopped = true;
    return false;
  }
  if (pendingStopKeys.contains(key)) return false;
  if (found != listeners.end()) listeners.erase(found);
  pendingStopKeys.insert(key);
  return true;
}

Task<std::string> RealtimeStore::State::tellStop(std::shared_ptr<State> self, std::string key) {
  auto onArrival = [self, key](const Dictionary&) {
    std::scoped_lock held(self->lock);
    self->pendingStopKeys.erase(key);
  };
  auto asking = self->ask(LocalEvent::realtimeStoreStopObserve, key, std::move(onArrival));
  const Dictionary response = co_await std::move(asking);
  auto failure = isStatusOK(response).failure;
  if (!failure.empty()) report("Error in stopObserving() for key '" + key + "' \n " + failure);
  co_return failure;
}

Task<void> RealtimeStore::State::stopObserving(std::shared_ptr<State> self, std::string key,
                                               Listener listener) {
  self->check("stopObserving", key);
  if (!self->isLastToGo(key, listener)) co_return;
  auto telling = tellStop(self, key);
  const auto failure = co_await std::move(telling);
  if (!failure.empty())
    throw RealtimeStoreError(StoreKind::operationFailed, "Failed to stop observing key");
}

// ---- The face ----------------------------------------------------------------------------------

RealtimeStore::RealtimeStore(std::shared_ptr<RoomClient> roomClient,
                             std::weak_ptr<MeetingActionValidating> validator)
    : _state(std::make_shared<State>()) {
  _state->roomClient = std::move(roomClient);
  _state->meetingActionValidator = std::move(validator);
}
RealtimeStore::~RealtimeStore() = default;

Task<void> RealtimeStore::set(std::string key, std::optional<std::string> value) {
  return State::set(_state, std::move(key), std::move(value));
}
Task<std::optional<std::string>> RealtimeStore::get(std::string key) {
  return State::get(_state, std::move(key));
}
Task<void> RealtimeStore::observe(std::string key, const Listener& forListener) {
  return State::observe(_state, std::move(key), forListener);
}
Task<void> RealtimeStore::stopObserving(std::string key, const Listener& forListener) {
  return State::stopObserving(_state, std::move(key), forListener);
}

void RealtimeStore::joinedAgain() {
  std::vector<std::string> keys;
  {
    std::scoped_lock held(_state->lock);
    for (const auto& [key, delegate] : _state->listeners)
      if (!delegate->isEmpty()) keys.push_back(key);
  }
  for (auto& key : keys) spawn(State::observeAgain(_state, std::move(key)));
}

void RealtimeStore::onValueChanged(const std::string& key, const std::optional<std::string>& value,
                                   const std::string& updatedBy) {
  std::shared_ptr<RealtimeStoreMulticastDelegate> delegate;
  {
    std::scoped_lock held(_state->lock);
    const auto found = _state->listeners.find(key);
    if (found == _state->listeners.end()) return;
    delegate = found->second;
  }
  MainQueue::shared().async([delegate, key, value, updatedBy] {
    delegate->invoke([&](auto& listener) { listener.onValueChanged(key, value, updatedBy); });
  });
}

}  // namespace kestrova
