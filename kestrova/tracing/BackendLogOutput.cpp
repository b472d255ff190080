#include <kestrova/platform/Farewells.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Values.h>
#include <kestrova/tracing/BackendLogOutput.h>
#include <kestrova/tracing/Redaction.h>
#include <kestrova/tracing/RoutedTracer.h>

#include <boost/asio/post.hpp>
#include <boost/url/parse.hpp>

#include <atomic>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

namespace kestrova {
namespace {

std::string_view kindOfLine(EventCategory category) {
  switch (category) {
    case EventCategory::error:
    case EventCategory::backendError:
      return "ERROR";
    case EventCategory::warn:
      return "WARN";
    default:
      return "INFO";
  }
}

/// On the consoles only, so that a log that is out of order is never told to itself.
void tellConsoles(const std::string& line) {
  RoutedTracer(targetMasks::consoles).debug(line, {.component = ComponentCategory::info});
}

void reportUnsent(std::string_view error) {
  tellConsoles("Error while logging: " + std::string(error));
}

}  // namespace

/// What is on its way; outlives the output by the posts that it has begun.
struct BackendLogOutput::Posts {
  std::shared_ptr<const Platform> platform = Platform::current();
  std::atomic<int> underWay{0};
  std::atomic<std::int64_t> leftOut{0};

  bool begin() {
    if (underWay.fetch_add(1) < mostUnderWay) return true;
    --underWay;
    ++leftOut;
    return false;
  }

  /// Tells once what a jam has cost, when half of it is gone.
  void end() {
    if (--underWay > mostUnderWay / 2) return;
    const auto missing = leftOut.exchange(0);
    if (missing > 0)
      tellConsoles(std::to_string(missing) + " log lines left out: too many under way");
  }

  /// \param farewell the exit of the process waits for it, a little
  static Task<void> send(std::shared_ptr<Posts> posts, URLRequest request,
                         std::shared_ptr<void> farewell) {
    std::string failure;
    try {
      auto sending = posts->platform->urlSession->data(std::move(request));
      co_await std::move(sending);
    } catch (const std::exception& error) {
      failure = error.what();
    }
    if (!failure.empty()) reportUnsent(failure);
    posts->end();
    farewell.reset();
  }
};

BackendLogOutput::BackendLogOutput(BackendLogOptions options)
    : _options(std::move(options)), _posts(std::make_shared<Posts>()) {}

void BackendLogOutput::onSpanEnded(const SpanEnd& span) {
  if (!takes(span.category)) return;
  sendLog(span.name, span.category, endAttributes(span, *this), span.dashboardLog);
}

void BackendLogOutput::onEvent(const TraceEvent& event) {
  if (takes(event.category))
    sendLog(event.name, event.category, event.attributes, event.dashboardLog);
}

void BackendLogOutput::setLogLevel(LogLevel level) {
  const std::lock_guard lock(_lock);
  _options.configuredLevel = level;
}

bool BackendLogOutput::takes(EventCategory category) const {
  if (!_options.respectsLogLevel) return true;
  const std::lock_guard lock(_lock);
  return admits(_options.configuredLevel, category);
}

void BackendLogOutput::sendLog(const std::string& text, EventCategory category,
                               const TraceAttributes& attributes, bool dashboardLog) try {
  const auto target = _options.target();
  if (target.endpoint.empty() || !boost::urls::parse_uri(target.endpoint)) return;
  auto request = makeRequest(target, text, category, attributes, dashboardLog);
  if (!_posts->begin()) return;
  // Never here: whoever traces may hold a lock, or have to go on at once.
  boost::asio::post(_posts->platform->background, [posts = _posts, request = std::move(request),
                                                   farewell = Farewells::begin()]() mutable {
    spawn(Posts::send(std::move(posts), std::move(request), std::move(farewell)));
  });
} catch (const std::exception& error) {
  reportUnsent(error.what());
}

/// \throws std::invalid_argument for what can't travel as JSON
URLRequest BackendLogOutput::makeRequest(const BackendLogTarget& target, const std::string& text,
                                         EventCategory category, const TraceAttributes& attributes,
                                         bool dashboardLog) const {
  Dictionary all{{"SDK", "iOS"},
                 {"SDK_VERSION", target.sdkVersion},
                 {"roomId", _options.roomId},
                 {"sessionId", _options.sessionId},
                 {"modelName", _options.modelName},
                 {"brand", "Apple"},
                 {"osVersion", _options.osVersion}};
  for (const auto& [key, value] : attributes)
    all[key] = _options.privateKeys.contains(key) ? redacted(value, RedactionConfig()) : value;
  all["peerId"] = _options.peerId;
  const auto body = jsonText(Dictionary{{"logText", text},
                                        {"logType", kindOfLine(category)},
                                        {"attributes", std::move(all)},
                                        {"debugMode", _options.debugMode},
                                        {"dashboardLog", dashboardLog}});
  if (!body) throw std::invalid_argument("the line is not UTF-8");
  return {.method = "POST",
          .url = target.endpoint,
          .headers = {{"Content-Type", "application/json"}, {"Authorization", target.token}},
          .body = *body,
          .timeout = std::chrono::seconds(60)};
}

}  // namespace kestrova
