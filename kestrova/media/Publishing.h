#pragma once

#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/MediaConfigStore.h>
#include <kestrova/media/MediaRegistry.h>
#include <kestrova/media/Transports.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/signalling/RoomContext.h>
#include <kestrova/tracing/Trace.h>

#include <memory>
#include <optional>
#include <string>

namespace kestrova {

class BroadcastCapturer;

/// Turns local tracks into producers on the send transport, and closes them again.
///
/// The local side closes before the service is asked, so that a refusal there leaves it closed.
/// Failures are `RoomClientFailure`s.
class Publishing : public ProducerDelegate, public std::enable_shared_from_this<Publishing> {
public:
  Publishing(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry,
             std::shared_ptr<Transports> transports, std::shared_ptr<MediaCapturer> capturer,
             std::shared_ptr<BroadcastCapturer> broadcast);

  /// \returns nothing, without a failure, when the track is disabled, the transport refuses it, or
  ///   `connection` goes meanwhile
  Task<std::shared_ptr<Producer>> produceLocalAudio(
      std::shared_ptr<CustomRTCMediaStream> customAudioStream, Connection connection,
      std::optional<SpanScope> enableMicSpan);
  /// A codec that the device lacks is replaced by VP8; any other codec than VP8 is sent as a single
  /// stream. Both are reported through `onError`, and the publish goes on.
  Task<std::shared_ptr<Producer>> produceLocalVideo(
      std::shared_ptr<CustomRTCMediaStream> customVideoStream, Connection connection,
      std::optional<SpanScope> enableCamSpan);

  /// The screen, as another process sends it: no simulcast, no limit of bits, never encrypted.
  Task<std::shared_ptr<Producer>> produceLocalScreenShare(Connection connection,
                                                          std::optional<SpanScope> parentSpan);

  /// \param telling the connection on which the service is told; nothing when the connection is
  ///   being given up anyway, or when the service has forgotten the stream
  /// \returns the id of the stream that was closed
  /// \throws RoomClientFailure producerNotFound when none is open
  Task<std::string> closeLocalAudio(std::optional<Connection> telling,
                                    std::optional<SpanScope> parentSpan);
  Task<std::string> closeLocalVideo(std::optional<Connection> telling,
                                    std::optional<SpanScope> parentSpan);
  Task<std::string> closeLocalScreenShare(std::optional<Connection> telling,
                                          std::optional<SpanScope> parentSpan);
  /// Forgets the publication that went with an earlier connection, while the screen goes on being
  /// captured. \returns the id of the stream that went, if there was one
  Task<std::optional<std::string>> forgetLocalScreenShare();

  /// A producer whose transport goes stays in the map until the next operation on it.
  void onTransportClose(const std::shared_ptr<Producer>& producer) override;

private:
  struct Row;
  struct VideoPlan;
  static const Row& row(MediaType type);

  [[noreturn]] void refuse(ParentSpan span, const Connection& connection, const char* line,
                           const KestrovaError& error, RoomClientError failure,
                           const char* message = "");
  void requireTransport(const Row& row, const Connection& connection, const ScopedSpan& span);
  void requireDevice(const Row& row, const Connection& connection, ParentSpan span);
  VideoPlan planVideo(CustomRTCMediaStream& stream);
  Task<std::shared_ptr<Producer>> publish(const Row& row, ProducerOptions options,
                                          Connection connection, SpanScope span);
  Task<std::string> closeLocal(const Row& row, std::optional<Connection> telling,
                               std::optional<SpanScope> parentSpan);
  Task<void> dispose(const Row& row, std::shared_ptr<Producer> producer,
                     std::optional<Connection> telling, SpanScope span);
  Task<void> closeOnMain(std::shared_ptr<Producer> producer);
  void removeTrack(MediaType type, const std::shared_ptr<RTCMediaStreamTrack>& track);
  void reportLater(const KestrovaError& error);

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<MediaRegistry> _registry;
  const std::shared_ptr<Transports> _transports;
  const std::shared_ptr<MediaCapturer> _capturer;
  const std::shared_ptr<BroadcastCapturer> _broadcast;
};

}  // namespace kestrova
