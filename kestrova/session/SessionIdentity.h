#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace kestrova {

/// By which ids the service knows a participant's stay in a meeting. Thread-safe.
class SessionIdentity {
public:
  /// As the newest entry response had them, whomever it was about.
  std::optional<std::string> sessionId() const { return read(_sessionId); }
  std::optional<std::string> peerId() const { return read(_peerId); }
  void note(const std::string& sessionId, const std::string& peerId) {
    std::scoped_lock held(_lock);
    _sessionId = sessionId;
    _peerId = peerId;
  }

  /// This participant enters that session.
  /// \returns whether it was in another one before
  bool enter(const std::string& sessionId) {
    std::scoped_lock held(_lock);
    const auto before = std::exchange(_entered, sessionId);
    return before && before != sessionId;
  }

private:
  std::optional<std::string> read(const std::optional<std::string>& field) const {
    std::scoped_lock held(_lock);
    return field;
  }

  mutable std::mutex _lock;
  std::optional<std::string> _sessionId;
  std::optional<std::string> _peerId;
  std::optional<std::string> _entered;
};

}  // namespace kestrova
