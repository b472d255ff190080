#pragma once

#include <kestrova/platform/Await.h>
#include <kestrova/platform/URLSession.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kestrova::test {

/// Answers every HTTP request as told: with a body, with no answer at all, or later.
class ScriptedSession final : public URLSession {
public:
  using Answer = std::variant<URLResponse, URLError>;

  Task<URLResponse> data(URLRequest request) override;

  void answer(std::string body, int status = 200) { _answer = URLResponse{status, body}; }
  void fail(const std::string& cause) { _answer = URLError(cause); }
  /// Requests from now on wait for `release`.
  void withhold() { _withheld = true; }
  /// Answers what waits.
  void release();

  std::vector<URLRequest> requests;

private:
  Answer _answer = URLResponse{200, R"({"data":{"baseUrl":"signal.test","socketPath":"/abc"}})"};
  bool _withheld = false;
  std::vector<Completion<bool>> _waiting;
};

}  // namespace kestrova::test
