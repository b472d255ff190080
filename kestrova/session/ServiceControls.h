#pragma once

#include <kestrova/model/MeetingAction.h>
#include <kestrova/model/ServiceConfigs.h>
#include <kestrova/session/MeetingContext.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// What the application asks of the services of a meeting: the guard, the body of each request, and
/// what of it may be traced. Any thread.
class ServiceControls {
public:
  explicit ServiceControls(std::shared_ptr<MeetingContext> context)
      : _context(std::move(context)) {}
  /// Set once, before the meeting is used.
  void setMeetingActionValidator(std::weak_ptr<MeetingActionValidating> validator) {
    _validator = std::move(validator);
  }

  void startRecording(const RecordingOptions& options) const;
  void startLivestream(const std::vector<LivestreamOutput>& outputs,
                       const std::optional<LivestreamConfig>& config) const;
  void startHLS(const std::optional<HLSConfig>& config,
                const std::optional<PostTranscriptionConfig>& transcription) const;
  void startTranscription(const std::optional<TranscriptionConfig>& config) const;
  void startWhiteboard() const;
  /// One that has no body.
  void ask(ServiceOperation operation) const;

  void pauseAllStreams(const std::optional<std::string>& kind) const;
  void resumeAllStreams(const std::optional<std::string>& kind) const;
  void switchTo(const std::string& meetingId, const std::optional<std::string>& token,
                std::optional<Mode> mode) const;

  void requestMediaRelay(const std::string& meetingId, const std::optional<std::string>& token,
                         const std::optional<std::vector<std::string>>& kinds) const;
  void handleRelayRequestResponse(const std::string& decision, const std::string& peerId,
                                  const std::string& meetingId) const;
  void stopMediaRelay(const std::string& meetingId) const;
  /// \param operation enableRelayMedia or disableRelayMedia
  void switchRelayMedia(ServiceOperation operation, const std::string& meetingId,
                        const std::string& kind) const;

private:
  /// Whether the guard lets it through.
  bool allows(ServiceOperation operation) const;
  void send(ServiceOperation operation, Dictionary data, ServiceRequests::Extras extras = {}) const;
  void askForAllStreams(ServiceOperation operation, const std::optional<std::string>& kind,
                        Task<void> (ServiceRequests::*request)(std::string)) const;

  const std::shared_ptr<MeetingContext> _context;
  std::weak_ptr<MeetingActionValidating> _validator;
};

}  // namespace kestrova
