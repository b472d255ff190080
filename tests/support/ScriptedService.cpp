#include "ScriptedService.h"

#include "ScriptedSocket.h"
#include <algorithm>

namespace kestrova::test {

ScriptedService::ScriptedService(std::shared_ptr<ManualScheduler> clock)
    : _clock(std::move(clock)) {
  answerTheRoad();
}

Value ScriptedService::ok(Dictionary data) {
  if (!data.contains("status")) data["status"] = "ok";
  return Dictionary{{"data", std::move(data)}};
}

/// A room with nobody else in it, in which everything succeeds.
void ScriptedService::answerTheRoad() {
  answer("getRouterRtpCapabilities",
         {{"codecs", List{Dictionary{{"mimeType", "video/VP8"}}}}, {"headerExtensions", List()}});
  respond("createWebRtcTransport", [](const Dictionary& data) {
    return ok({{"id", boolean(data, "producing", false) ? "send" : "receive"},
               {"iceParameters", {{"usernameFragment", "u"}}},
               {"iceCandidates", List{Dictionary{{"ip", "127.0.0.1"}}}},
               {"dtlsParameters", {{"role", "auto"}}}});
  });
  respond("produce", [this](const Dictionary& data) {
    return ok({{"id", text(data, "kind", "") + "-" + std::to_string(++_producers)}});
  });
  answer("join", {{"peers", List()}, {"pubSubUrl", "wss://topics.test"}});
}

// ---- Answers -----------------------------------------------------------------------------------

void ScriptedService::respond(const std::string& method, Responder responder) {
  _responders[method] = std::move(responder);
}

void ScriptedService::answer(const std::string& method, Dictionary data) {
  respond(method, [reply = ok(std::move(data))](const Dictionary&) { return reply; });
}

void ScriptedService::refuse(const std::string& method, int code, const std::string& message) {
  answer(method, {{"status", "error"}, {"errorCode", code}, {"message", message}});
}

void ScriptedService::withhold(const std::string& method) {
  respond(method, [](const Dictionary&) { return std::nullopt; });
}

void ScriptedService::withholdOnce(const std::string& method, int answered) {
  _withholding[method] = answered;
}

bool ScriptedService::answerLate(const std::string& method, Value reply) {
  const auto found = std::find_if(_withheld.begin(), _withheld.end(),
                                  [&](const Pending& each) { return each.method == method; });
  if (found == _withheld.end()) return false;
  auto settle = std::move(found->settle);
  _withheld.erase(found);
  settle({std::move(reply)});
  return true;
}

void ScriptedService::receive(Request request, std::function<void(SocketItems)> settle) {
  const auto method = request.method();
  const auto data = request.data();
  _requests.push_back(std::move(request));
  if (!settle) return;
  const auto withholding = _withholding.find(method);
  if (withholding != _withholding.end() && withholding->second-- == 0) {
    _withholding.erase(withholding);
    _withheld.push_back({method, std::move(settle)});
    return;
  }
  const auto responder = _responders.find(method);
  const auto reply = responder == _responders.end() ? std::optional(ok()) : responder->second(data);
  if (reply)
    settle({*reply});
  else
    _withheld.push_back({method, std::move(settle)});
}

void ScriptedService::loseConnection() {
  for (auto& pending : std::exchange(_withheld, {}))
    pending.settle({Value(SocketIOClient::disconnectMarker)});
}

// ---- Questions ---------------------------------------------------------------------------------

std::vector<std::string> ScriptedService::methods() const {
  std::vector<std::string> names;
  for (const auto& request : _requests) names.push_back(request.method());
  return names;
}

long ScriptedService::count(const std::string& method) const {
  const auto names = methods();
  return std::count(names.begin(), names.end(), method);
}

Dictionary ScriptedService::last(const std::string& method) const {
  const auto found = std::find_if(_requests.rbegin(), _requests.rend(),
                                  [&](const Request& each) { return each.method() == method; });
  return found == _requests.rend() ? Dictionary() : found->data();
}

// ---- Connections -------------------------------------------------------------------------------

std::shared_ptr<SocketManager> ScriptedService::connect(const std::string& url,
                                                        SocketManagerConfig config) {
  auto socket = std::make_shared<ScriptedSocket>(shared_from_this(), _clock, config.handleQueue);
  _socket = socket;
  config.handleQueue = nullptr;
  _connections.push_back({url, std::move(config)});
  return std::make_shared<ScriptedSocketManager>(std::move(socket), weak_from_this());
}

}  // namespace kestrova::test
