#include "ScriptedSession.h"

namespace kestrova::test {

Task<URLResponse> ScriptedSession::data(URLRequest request) {
  requests.push_back(std::move(request));
  if (_withheld) {
    auto wait = [this](Completion<bool> done) { _waiting.push_back(done); };
    co_await awaitCallback<bool>(std::move(wait));
  }
  if (const auto* error = std::get_if<URLError>(&_answer)) throw *error;
  co_return std::get<URLResponse>(_answer);
}

void ScriptedSession::release() {
  _withheld = false;
  for (const auto& waiter : std::exchange(_waiting, {})) waiter(true);
}

}  // namespace kestrova::test
