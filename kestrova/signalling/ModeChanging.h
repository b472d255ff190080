#pragma once

#include <kestrova/media/Consuming.h>
#include <kestrova/media/Transports.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace kestrova {

/// Thrown when a change of mode is not carried out; `what()` says why.
class ModeChangeFailure : public std::runtime_error {
public:
  enum class Kind { alreadySameMode, refused };
  static constexpr const char* domain = "com.kestrova.ios.modechange";

  /// \param cause the same for people
  ModeChangeFailure(Kind kind, const std::string& description, std::string cause)
      : std::runtime_error(description), _kind(kind), _cause(std::move(cause)) {}
  Kind kind() const { return _kind; }
  const std::string& cause() const { return _cause; }

private:
  Kind _kind;
  std::string _cause;
};

/// Changes what the local participant sends and receives: the transports that the new mode needs,
/// the service's consent, and the end of the transports that it doesn't need.
class ModeChanging : public std::enable_shared_from_this<ModeChanging> {
public:
  ModeChanging(std::shared_ptr<RoomContext> context, std::shared_ptr<Transports> transports,
               std::shared_ptr<Consuming> consuming)
      : _context(std::move(context)),
        _transports(std::move(transports)),
        _consuming(std::move(consuming)) {}

  /// The local streams are stopped before leaving a mode that sends, and started after entering
  /// one.
  /// \throws ModeChangeFailure; the mode is then as it was before. A drop of the connection is such
  /// a
  ///   failure: the return brings the media of that mode.
  Task<void> changeMode(Mode mode, Connection connection, std::optional<SpanScope> changeModeSpan);

private:
  Task<void> performChangeModeOnServer(Mode mode, std::optional<SpanScope> span,
                                       Connection connection);
  void closeUnused();

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<Transports> _transports;
  const std::shared_ptr<Consuming> _consuming;
};

}  // namespace kestrova
