#pragma once

#include <kestrova/platform/URLSession.h>
#include <kestrova/tracing/TraceOutput.h>

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace kestrova {

/// Where the log lines of the back end go, as the service has set it by now.
struct BackendLogTarget {
  /// Nothing is sent while this is empty.
  std::string endpoint;
  std::string token;
  std::string sdkVersion;
};

struct BackendLogOptions {
  EventCategories subscribedCategories = {EventCategory::warn, EventCategory::error,
                                          EventCategory::backendError};
  bool canAccessSensitiveData = false;
  bool respectsLogLevel = false;
  std::string roomId;
  std::string peerId;
  std::string sessionId;
  bool debugMode = true;
  LogLevel configuredLevel = LogLevel::info;
  /// Attributes that the application filled: no secrets by their names, and not shown whole.
  std::set<std::string, std::less<>> privateKeys{};
  /// What the device says of itself.
  std::string modelName;
  std::string osVersion;
  /// Asked for every line. Called on any thread; must not trace.
  std::function<BackendLogTarget()> target;
};

/// Posts what went wrong in a meeting to the service's log, one request a line. Nobody waits for a
/// post, and a line that can't be sent is told on the consoles and otherwise gone: nothing is
/// queued or sent again, and while `mostUnderWay` posts are on their way no more are begun.
class BackendLogOutput final : public TraceOutput {
public:
  static constexpr int mostUnderWay = 64;

  /// Sends by the platform that is installed now.
  explicit BackendLogOutput(BackendLogOptions options);

  EventCategories subscribedCategories() const override { return _options.subscribedCategories; }
  bool canAccessSensitiveData() const override { return _options.canAccessSensitiveData; }
  bool respectsLogLevel() const override { return _options.respectsLogLevel; }
  int outputBit() const override { return outputBits::backendLog; }
  void onSpanStarted(const SpanStart&) override {}
  void onSpanEnded(const SpanEnd& span) override;
  void onEvent(const TraceEvent& event) override;
  void setLogLevel(LogLevel level) override;

private:
  struct Posts;

  bool takes(EventCategory category) const;
  void sendLog(const std::string& text, EventCategory category, const TraceAttributes& attributes,
               bool dashboardLog);
  URLRequest makeRequest(const BackendLogTarget& target, const std::string& text,
                         EventCategory category, const TraceAttributes& attributes,
                         bool dashboardLog) const;

  BackendLogOptions _options;  // configuredLevel under _lock, the rest constant
  mutable std::mutex _lock;
  const std::shared_ptr<Posts> _posts;
};

}  // namespace kestrova
