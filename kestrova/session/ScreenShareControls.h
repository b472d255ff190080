#pragma once

#include <kestrova/platform/AsyncLock.h>
#include <kestrova/platform/ScreenSharing.h>
#include <kestrova/session/MeetingContext.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// The local screen: one share at a time, from the wish over the program that sends it and its
/// notifications to the publication, and back.
///
/// Each share has a number; whatever wakes up for another one than the present ends quietly.
/// Switching off counts from the moment it is asked for. What a drop of the connection interrupts
/// goes on after the return, from the same program.
class ScreenShareControls : public std::enable_shared_from_this<ScreenShareControls> {
public:
  explicit ScreenShareControls(std::shared_ptr<MeetingContext> context);
  ~ScreenShareControls();

  /// The application's; the guard has let them through. They return at once.
  void enableScreenShare();
  void disableScreenShare();

  /// Closes the publication that an earlier connection left; the screen is captured on.
  Task<void> clearEarlier(Connection connection);
  /// Publishes what was shared before the connection was lost.
  Task<void> resume(Connection connection, std::optional<SpanScope> parentSpan);
  /// Ends the share for a mode without sending.
  Task<void> stopForMode(Connection connection, std::optional<SpanScope> parentSpan);
  /// The meeting is over.
  void end();
  /// Whether it is published.
  bool isScreenSharingActive() const;

private:
  using Number = std::uint64_t;
  using Observer = std::shared_ptr<CrossProcessNotifications::Observer>;

  /// One share, from the wish to the end.
  struct Share {
    Number number = 0;  ///< 0 where there is none
    std::string group;  ///< of its own, where the library started the program
    // While they are there the notifications are observed.
    Observer startObserver;
    Observer stopObserver;
    std::unique_ptr<BroadcastProgram> program;
    bool hasStarted = false;  ///< its program has said so
    std::shared_ptr<Producer> producer;
    std::optional<Connection> connection;  ///< of the producer
  };

  Task<void> beginInTurn(Number number);
  void begin(Number number);
  /// Hears what the program of `share` says. False where it can't be heard.
  bool observe(Share& share, const std::string& group);
  /// Ends a share that can't be, and reports that where it is still wished.
  void fail(Number number, const std::string& cause);
  bool isWished(Number number) const;
  void startScreenShare(Number number);
  Task<void> publish(Number number, std::optional<SpanScope> parentSpan);
  /// Under the turn. \returns whether a publication stands
  Task<bool> publishNow(Number number, Connection connection, std::optional<SpanScope> parentSpan);
  /// \returns whether it was wished until now
  bool stopShare(Number number);
  Task<void> stop(Number number, std::optional<SpanScope> parentSpan);
  /// Under the turn: the share that is there, published or not.
  Task<void> endShare(std::optional<SpanScope> parentSpan);
  Task<void> refuseToStop();
  Task<void> closePublication(std::optional<SpanScope> parentSpan);
  void programEnded(Number number, const BroadcastEnd& end);
  void report(const KestrovaError& error);
  /// Silent from now on, whatever still comes.
  void silence();
  /// Ends the capture of a share that was switched off, though its publication waits for its turn.
  void endProgram(Number number);
  Share takeShare();
  void endBroadcast();
  void letGo(Share share);

  const std::shared_ptr<MeetingContext> _context;
  const std::shared_ptr<ScreenSharing> _screen;
  AsyncLock _turns;
  mutable std::mutex _stateLock;
  // Under _stateLock:
  bool _isWished = false;
  bool _isScreenSharingActive = false;
  bool _isOver = false;
  Number _number = 0;
  Share _share;
};

}  // namespace kestrova
