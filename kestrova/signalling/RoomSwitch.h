#pragma once

#include <kestrova/media/Consuming.h>
#include <kestrova/signalling/JoinSequence.h>
#include <kestrova/signalling/RoomContext.h>
#include <kestrova/signalling/ServiceRequests.h>
#include <kestrova/signalling/Teardown.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// Moves a joined participant to another meeting over the same connection: the service is asked,
/// says in an entry response when the move is on, and is then told of the new join.
class RoomSwitch : public std::enable_shared_from_this<RoomSwitch> {
public:
  RoomSwitch(std::shared_ptr<RoomContext> context, std::shared_ptr<Consuming> consuming,
             std::shared_ptr<JoinSequence> joinSequence, std::shared_ptr<Teardown> teardown,
             std::shared_ptr<ServiceRequests> serviceRequests)
      : _context(std::move(context)),
        _consuming(std::move(consuming)),
        _joinSequence(std::move(joinSequence)),
        _teardown(std::move(teardown)),
        _serviceRequests(std::move(serviceRequests)) {}

  /// Asks the service for the move.
  Task<void> switchTo(std::optional<std::string> token, std::string meetingId, Mode mode);
  /// The service has moved this participant: ends what came from the people of the old meeting, and
  /// from now on everything names the next one. The connection, the transports and the local
  /// streams stay. On the socket's queue.
  void softClose(const std::string& nextMeetingId);
  /// Joins it. A failed join ends the meeting; one that a drop interrupts is carried on by the
  /// return.
  Task<void> switchingRoom(std::string meetingId, Mode mode, bool isBatchingEnabled,
                           Connection connection);
  /// The meeting to which a drop interrupted the move, once: the join after the return ends it.
  /// \param now the connection that was joined; a move that began on it is still under way
  std::optional<std::string> takeInterrupted(const Connection& now);
  /// Whether moves that were asked for on an earlier connection were not decided on it, once: the
  /// service has forgotten all of that connection.
  bool takeForgotten(const Connection& now);
  /// The service has decided about them, one way or the other.
  void allDecided();
  /// To which meeting a move has been announced that is not over.
  std::optional<std::string> movingTo() const;

private:
  struct Asked {
    int number;
    std::string meetingId;
    std::optional<std::string> token;
    Connection connection;
    bool isDecided = false;
  };
  struct Move {
    std::string meetingId;
    Connection connection;
  };
  void takeOver(const std::string& meetingId);
  void moved(const std::string& meetingId);
  int noteAsked(const std::string& meetingId, std::optional<std::string> token);
  void forgetAsked(int number);

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<Consuming> _consuming;
  const std::shared_ptr<JoinSequence> _joinSequence;
  const std::shared_ptr<Teardown> _teardown;
  const std::shared_ptr<ServiceRequests> _serviceRequests;

  mutable std::mutex _lock;
  int _askedSoFar = 0;
  std::vector<Asked> _asked;  // on this connection
  std::optional<Move> _move;  // to a meeting that is not joined yet
};

}  // namespace kestrova
