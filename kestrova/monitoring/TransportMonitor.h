#pragma once

#include <kestrova/media/MediaRegistry.h>
#include <kestrova/monitoring/KestrovaMetrics.h>
#include <kestrova/monitoring/LinkConditions.h>
#include <kestrova/monitoring/StatsFiling.h>
#include <kestrova/monitoring/StreamMeter.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// Looks after the transports of one room client: a probe for each that is in use, what becomes of
/// its looks, and what the service and the application want to know of them. Thread-safe.
///
/// A look is worked off on its probe's queue; the state queue is held only while it is filed and
/// judged, and never waits for the engine.
class TransportMonitor : public ProbeDelegate,
                         public std::enable_shared_from_this<TransportMonitor> {
public:
  TransportMonitor(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry);

  /// Looks at this transport from now on, instead of the one before; at none with nothing.
  void replaceSendProbe(const std::shared_ptr<SendTransport>& transport);
  void replaceRecvProbe(const std::shared_ptr<ReceiveTransport>& transport);
  /// Looks at that transport no longer, if it does.
  void forget(const std::shared_ptr<Transport>& transport);
  void removeAllProbes();

  /// The answer to the service's "statsData".
  Dictionary getStatsData();
  /// The newest entries of a participant's streams of that kind; nothing before the first look.
  std::optional<List> getStats(const std::string& participantId, MediaType type) const;

  void onSendTransportStatsCollected(const CollectedStats& stats) override;
  void onRecieveTransportStatsCollected(const CollectedStats& stats) override;

private:
  void replace(std::shared_ptr<Probe>& slot, MonitoringObject monitoringObject);
  const std::string& localId() const { return _context->options.meeting.localParticipantId; }
  /// Whether a look is that of the probe in use.
  bool isIn(const std::shared_ptr<Probe>& slot, const CollectedStats& stats);
  /// Tells the meeting, behind what it was told before.
  void tellMeasured(const StreamMeter::Measured& measured,
                    const std::vector<KnownTrack>& tracks) const;
  void raise(const LinkConditions::Limitation& limitation) const;

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<MediaRegistry> _registry;
  KestrovaMetrics _metricsCollector;

  std::mutex _probeLock;
  std::shared_ptr<Probe> _sendProbe;  // under the lock
  std::shared_ptr<Probe> _recvProbe;  // under the lock

  // On the state queue:
  StatsFiling _filing;
  LinkConditions _conditions;
  StreamMeter _sentMeter;
  StreamMeter _receivedMeter;
};

}  // namespace kestrova
