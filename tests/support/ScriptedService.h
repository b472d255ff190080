#pragma once

#include <kestrova/platform/SocketIO.h>

#include "ManualScheduler.h"
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::test {

class ScriptedSocket;

/// The meeting service's side of the signalling connection, whatever sockets come and go.
///
/// A request is answered from a table of methods; one that the table lacks gets a plain "ok".
class ScriptedService : public std::enable_shared_from_this<ScriptedService> {
public:
  /// What the service says to one request; nothing leaves it unanswered.
  using Responder = std::function<std::optional<Value>(const Dictionary& data)>;
  using AckHandler = SocketIOClient::AckHandler;

  struct Request {
    std::string event;
    Dictionary envelope;
    bool wantsAnswer = false;

    std::string method() const { return text(envelope, "method", ""); }
    Dictionary data() const {
      const auto* found = dictionary(envelope, "data");
      return found ? *found : Dictionary();
    }
  };
  struct Connection {
    std::string url;
    SocketManagerConfig config;  ///< without its queue
  };

  explicit ScriptedService(std::shared_ptr<ManualScheduler> clock);

  // ---- How requests are answered
  void respond(const std::string& method, Responder responder);
  /// Answers `{"data": data}`, with the status "ok" unless `data` has one.
  void answer(const std::string& method, Dictionary data);
  void refuse(const std::string& method, int code = 4000, const std::string& message = "no");
  void withhold(const std::string& method);
  /// Withholds one answer only, after `answered` others.
  void withholdOnce(const std::string& method, int answered = 0);
  /// Answers the oldest request of that method that was withheld; false when there is none.
  bool answerLate(const std::string& method, Value answer);
  static Value ok(Dictionary data = {});

  // ---- What was asked
  const std::vector<Request>& requests() const { return _requests; }
  std::vector<std::string> methods() const;
  long count(const std::string& method) const;
  /// The data of the newest request of that method.
  Dictionary last(const std::string& method) const;
  void forgetRequests() { _requests.clear(); }

  // ---- Its connections
  std::shared_ptr<SocketManager> connect(const std::string& url, SocketManagerConfig config);
  const std::vector<Connection>& connections() const { return _connections; }
  /// The newest connection is made anew with these.
  void setConnectParams(std::vector<std::pair<std::string, std::string>> params) {
    _connections.back().config.connectParams = std::move(params);
  }
  /// The newest socket, or nothing when it is gone.
  std::shared_ptr<ScriptedSocket> socket() const { return _socket.lock(); }

private:
  friend class ScriptedSocket;
  struct Pending {
    std::string method;
    std::function<void(SocketItems)> settle;
  };
  void receive(Request request, std::function<void(SocketItems)> settle);
  /// What was withheld ends as the real client ends it.
  void loseConnection();
  void answerTheRoad();

  const std::shared_ptr<ManualScheduler> _clock;
  std::map<std::string, Responder> _responders;
  std::vector<Request> _requests;
  std::vector<Pending> _withheld;
  std::map<std::string, int> _withholding;  // how many are answered before the one that isn't
  std::vector<Connection> _connections;
  std::weak_ptr<ScriptedSocket> _socket;
  int _producers = 0;
};

}  // namespace kestrova::test
