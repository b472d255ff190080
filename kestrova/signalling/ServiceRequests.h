#pragma once

#include <kestrova/signalling/Events.h>
#include <kestrova/signalling/RoomContext.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// What a meeting can ask of its services and of its characters.
enum class ServiceOperation {
  startRecording,
  stopRecording,
  startLivestream,
  stopLivestream,
  startHLS,
  stopHLS,
  startTranscription,
  stopTranscription,
  startWhiteboard,
  stopWhiteboard,
  pauseAllStreams,
  resumeAllStreams,
  enableAdaptiveSubscription,
  disableAdaptiveSubscription,
  switchTo,
  requestMediaRelay,
  handleRelayRequestResponse,
  stopMediaRelay,
  enableRelayMedia,
  disableRelayMedia,
  joinCharacter,
  leaveCharacter,
  sendCharacterMessage,
  interruptCharacter,
};

/// What is said, traced and reported about one of them.
struct ServiceRow {
  ServiceOperation operation;
  const char* method;  ///< the name by which the guard knows it
  LocalEvent request;
  const char* span;
  const char* done;
  const char* cause;                     ///< stands before what went wrong
  const char* causeEnd = "";             ///< and this behind it
  const char* failed = nullptr;          ///< how the span ends; the cause where there is none
  const KestrovaError* error = nullptr;  ///< nothing is reported where there is none
};

const ServiceRow& serviceRow(ServiceOperation operation);

/// Sends them. Nothing changes on this side by asking: the service's events tell what came of it.
/// Any thread.
class ServiceRequests : public std::enable_shared_from_this<ServiceRequests> {
public:
  struct Extras {
    TraceAttributes attributes = {};  ///< of the span
    /// Texts of the request that the service may quote when it refuses, and nobody may read.
    std::vector<std::string> secrets = {};
    /// See `SocketRequestHandler::prepareAndSendRequest`.
    SocketRequestHandler::AnswerHandler onArrival = {};
  };

  explicit ServiceRequests(std::shared_ptr<RoomContext> context) : _context(std::move(context)) {}

  /// Sends it without awaiting the answer.
  void send(ServiceOperation operation, Dictionary data, Extras extras);
  /// Awaits the answer. A refusal is traced, and reported where the operation has an error.
  /// \returns whether the service took it
  Task<bool> ask(ServiceOperation operation, Dictionary data, Extras extras);

  /// \param kind "audio", "video", "share" or "all"
  Task<void> pauseAllStreams(std::string kind);
  Task<void> resumeAllStreams(std::string kind);

private:
  struct AllStreams;
  int noteAllStreams(const std::string& kind);
  /// Whether something else is wished of such streams by now.
  bool isSuperseded(const std::string& kind, int number) const;
  Task<void> askForAllStreams(const AllStreams& texts, std::string kind);
  bool judge(const ServiceRow& row, const Dictionary& reply, ScopedSpan& span,
             const std::vector<std::string>& secrets = {});

  const std::shared_ptr<RoomContext> _context;
  mutable std::mutex _lock;
  int _allStreamsAsked = 0;
  std::map<std::string, int> _newestOfKind;  // by number
};

}  // namespace kestrova
