#pragma once

#include <kestrova/platform/AsyncLock.h>
#include <kestrova/session/MediumState.h>
#include <kestrova/session/MeetingContext.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// One local medium: what is wished of it, what runs, and one transition at a time between the two,
/// in the order in which they were asked for. Failures are reported through `onError`.
///
/// Switching off counts from the moment it is asked for: the track is silent before anything is
/// sent, and whatever the library has begun of itself (the start after a join or a return, another
/// codec) ends with the medium off. A start that a drop interrupts is still wished after it.
class LocalMedium : public std::enable_shared_from_this<LocalMedium> {
public:
  using Stream = std::shared_ptr<CustomRTCMediaStream>;
  using Track = std::shared_ptr<RTCMediaStreamTrack>;

  virtual ~LocalMedium() = default;

  /// The application's toggles; the guard has let them through. They return at once.
  /// \param custom the application's own track; without one the device is captured
  void turnOn(Stream custom);
  void turnOff();

  /// Closes what an earlier connection left.
  Task<void> clearEarlier(Connection connection);
  /// Starts it as wished and as the mode allows, and takes it down where it must not be on.
  Task<void> startWished(Mode mode, Connection connection, std::optional<SpanScope> parentSpan);
  /// Stops it for a mode without sending; the wish stays.
  Task<void> stopForMode(Connection connection, std::optional<SpanScope> parentSpan);
  /// Whether a publication of it is listed, though its transport may be gone.
  bool isPublished() const;
  /// Ends a track that the library captures for the application, and forgets the application's.
  void releaseCustomStream();
  /// The device behind `track` ended by itself.
  void captureEnded(const Track& track, const std::string& error);

protected:
  /// What is said and reported about this medium.
  struct Texts {
    MediumState::Refusals on;
    MediumState::Refusals off;
    const char* enablingCustom;
    const char* enabling;
    const char* customKey;
    const char* permissionKey;
    const char* disabling;
    const char* disposing;
    const char* publishFailed;
    KestrovaError permissionDenied;
    KestrovaError trackEnded;
    KestrovaError invalidTrack;
    bool isAudio;
    /// Whether toggles are refused as busy while the library starts it.
    bool holdsToggle;
  };
  LocalMedium(std::shared_ptr<MeetingContext> context, const Texts& texts, bool wished);

  // What differs from medium to medium.
  virtual AuthorisationStatus permission() const = 0;
  virtual Stream customStream() const = 0;
  virtual void setCustomStream(Stream stream) = 0;
  virtual Track trackOf(const CustomRTCMediaStream& stream) const = 0;
  /// Remembers how the application wants its own track sent.
  virtual void record(const Stream& custom) = 0;
  /// Opens the device as it was last asked for; reports a failure itself, unless the connection
  /// went.
  virtual Task<Stream> capture(Connection connection, SpanScope span) = 0;
  /// \throws RoomClientFailure, traced and reported
  virtual Task<std::shared_ptr<Producer>> produce(Stream stream, Connection connection,
                                                  SpanScope span) = 0;
  virtual Task<std::string> close(std::optional<Connection> telling, SpanScope span) = 0;
  virtual Task<std::optional<std::string>> cleanup() = 0;
  /// Ends the library's own capture of `track`, if it is that.
  virtual Task<void> releaseCapture(Track track) = 0;
  /// The application has turned it off, a moment ago.
  virtual void turnedOff() {}
  /// A publication stands.
  virtual void published() {}

  /// Under the turn: publishes, and heeds a change of mind meanwhile.
  Task<void> startWhileWished(Connection connection, std::optional<SpanScope> parentSpan);
  /// Under the turn: closes and releases.
  Task<void> stop(SpanScope span);
  /// Whether it is published on that connection, and sends.
  bool isRunning(const Connection& connection) const;
  /// The application's track, unless it was disposed of.
  Stream liveCustomStream() const;

  const std::shared_ptr<MeetingContext> _context;
  MediumState _state;
  AsyncLock _turns;

private:
  enum class Outcome { published, failed, unwished, interrupted };
  struct Running {
    Track track;
    bool isCaptured = false;               // by the library
    bool isSilenced = false;               // by `turnOff`
    bool hasFailed = false;                // its device ended by itself
    std::string failure{};                 // and why
    std::optional<Connection> connection;  // once it is published
    std::shared_ptr<Producer> producer;
  };

  Task<Outcome> start(Stream custom, Connection connection, std::optional<SpanScope> parentSpan);
  Task<void> turnOnNow(Stream custom);
  bool runs(const Track& track) const;
  void report(const KestrovaError& error);
  Task<void> turnOffNow();
  Task<void> switchOff();
  Task<void> endAfterFailure();
  Task<bool> publish(Stream stream, Connection connection, SpanScope span);
  Task<Outcome> giveUp(Outcome outcome);
  void removePublished();
  Task<Outcome> judge(bool isPublished, Connection connection, SpanScope span);
  /// The span of a start ends as what became of it.
  static Outcome told(ScopedSpan& span, Outcome outcome);
  bool permitted(const SpanScope& span);
  void watch(const Stream& custom);
  /// For a publication: reports a track that was disposed of, in whose place the device is
  /// captured.
  Stream valid(Stream stream);
  void setTrack(Track track, bool isCaptured);
  void setSilent(bool silent);
  bool hasFailed() const;
  std::string failure() const;
  Running forgetTrack();

  const Texts _texts;
  mutable std::mutex _runningLock;
  Running _running;
};

}  // namespace kestrova
