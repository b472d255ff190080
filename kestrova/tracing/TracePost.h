#pragma once

#include <kestrova/platform/Platform.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

struct TracePostOptions {
  std::string endpoint;
  /// Sent as it stands.
  std::string token;
  std::string userAgent;
  std::shared_ptr<const Platform> platform;
  /// How long one request may take.
  std::chrono::milliseconds requestTimeout{60'000};
  /// How long `send` waits for it.
  std::chrono::milliseconds exportTimeout{30'000};
};

/// Posts batches of encoded spans, for a thread that has nothing else to do. Nothing is tried
/// twice.
class TracePost {
public:
  using Clock = std::chrono::steady_clock;

  explicit TracePost(TracePostOptions options);
  ~TracePost();
  TracePost(const TracePost&) = delete;
  TracePost& operator=(const TracePost&) = delete;

  /// Posts the batch and waits. \param body nothing where the batch could not be encoded: the
  /// request
  ///   goes out empty then
  /// \returns whether the service took the batch
  bool send(std::optional<std::string> body);
  /// From then on nothing is sent or waited for any more. Of several times the earliest counts. Any
  /// thread.
  void giveUpAt(Clock::time_point time);

private:
  struct State;

  URLRequest request(std::optional<std::string> body) const;

  const TracePostOptions _options;
  const std::shared_ptr<State> _state;
};

}  // namespace kestrova
