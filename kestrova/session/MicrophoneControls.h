#pragma once

#include <kestrova/session/LocalMedium.h>

#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// The local microphone: permission, capture, publication, and the local participant's stream that
/// comes of them.
class MicrophoneControls final : public LocalMedium {
public:
  explicit MicrophoneControls(std::shared_ptr<MeetingContext> context);

private:
  static const Texts& texts();
  AuthorisationStatus permission() const override;
  Stream customStream() const override;
  void setCustomStream(Stream stream) override;
  Track trackOf(const CustomRTCMediaStream& stream) const override;
  void record(const Stream& custom) override;
  Task<Stream> capture(Connection connection, SpanScope span) override;
  Task<std::shared_ptr<Producer>> produce(Stream stream, Connection connection,
                                          SpanScope span) override;
  Task<std::string> close(std::optional<Connection> telling, SpanScope span) override;
  Task<std::optional<std::string>> cleanup() override;
  Task<void> releaseCapture(Track track) override;
};

}  // namespace kestrova
