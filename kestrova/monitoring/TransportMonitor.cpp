#include <kestrova/media/StreamFacts.h>
#include <kestrova/monitoring/TransportMonitor.h>

#include <utility>

namespace kestrova {
namespace {

KestrovaMetricsConfig configOf(const RoomContext& context) {
  return {.peerId = context.options.meeting.localParticipantId,
          .roomId = context.options.meeting.id};
}

}  // namespace

TransportMonitor::TransportMonitor(std::shared_ptr<RoomContext> context,
                                   std::shared_ptr<MediaRegistry> registry)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _metricsCollector(configOf(*_context)) {}

void TransportMonitor::replace(std::shared_ptr<Probe>& slot, MonitoringObject monitoringObject) {
  const bool isWanted = monitoringObject.sendTransport || monitoringObject.recieveTransport;
  auto probe = isWanted ? _metricsCollector.addNewProbe(std::move(monitoringObject)) : nullptr;
  std::shared_ptr<Probe> before;
  {
    std::scoped_lock held(_probeLock);
    before = std::exchange(slot, probe);
  }
  _metricsCollector.remove(before);
  if (!probe) return;
  probe->setDelegate(weak_from_this());
  probe->start();
}

void TransportMonitor::replaceSendProbe(const std::shared_ptr<SendTransport>& transport) {
  replace(_sendProbe, {.sendTransport = transport});
  _context->stateQueue->async([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->_filing.forgetSent();
    self->_sentMeter.reset();
  });
}

void TransportMonitor::replaceRecvProbe(const std::shared_ptr<ReceiveTransport>& transport) {
  replace(_recvProbe, {.recieveTransport = transport});
  _context->stateQueue->async([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->_filing.forgetReceived();
    self->_receivedMeter.reset();
  });
}

void TransportMonitor::forget(const std::shared_ptr<Transport>& transport) {
  if (!transport) return;
  bool isSent = false;
  bool isReceived = false;
  {
    std::scoped_lock held(_probeLock);
    isSent = _sendProbe && _sendProbe->monitoringObject().sendTransport == transport;
    isReceived = _recvProbe && _recvProbe->monitoringObject().recieveTransport == transport;
  }
  if (isSent) replaceSendProbe(nullptr);
  if (isReceived) replaceRecvProbe(nullptr);
}

void TransportMonitor::removeAllProbes() {
  _metricsCollector.removeAllProbes();
}

// ---- What was asked ----------------------------------------------------------------------------

Dictionary TransportMonitor::getStatsData() {
  const auto usage = _context->platform->processUsage();
  const auto now = _context->platform->scheduler->wallClockMs();
  auto stats = _context->stateQueue->sync([&] { return _filing.statsData(now, usage); });
  return {{"peerId", localId()}, {"statsData", std::move(stats)}};
}

std::optional<List> TransportMonitor::getStats(const std::string& participantId,
                                               MediaType type) const {
  return _context->stateQueue->sync([&] { return _filing.latest(participantId, type); });
}

// ---- What was seen -----------------------------------------------------------------------------

namespace {

template <class Streams>
std::vector<KnownTrack> tracksOf(const Streams& streams, const std::string& localId) {
  std::vector<KnownTrack> tracks;
  for (const auto& stream : streams) {
    const auto facts = factsOf(*stream);
    const bool isSharedSound =
        localId.empty() && facts.kind == MediaType::audio && isShare(stream->appData());
    tracks.push_back({.trackId = stream->track()->id(),
                      .streamId = stream->id(),
                      .peerId = localId.empty() ? facts.peerId : localId,
                      .type = isSharedSound ? MediaType::share : facts.kind,
                      .kind = isSharedSound ? "shareAudio" : std::string(text(facts.kind))});
  }
  return tracks;
}

}  // namespace

bool TransportMonitor::isIn(const std::shared_ptr<Probe>& slot, const CollectedStats& stats) {
  std::scoped_lock held(_probeLock);
  return slot && slot->id() == stats.probeId;
}

void TransportMonitor::onSendTransportStatsCollected(const CollectedStats& stats) {
  const auto tracks = tracksOf(_registry->producers(), localId());
  const auto now = _context->platform->scheduler->wallClockMs();
  StreamMeter::Measured measured;
  std::vector<LinkConditions::Limitation> news;
  _context->stateQueue->sync([&] {
    if (!isIn(_sendProbe, stats)) return;
    if (stats.raw.empty()) {
      _filing.forgetSent();
      measured = _sentMeter.rest(now);
      return;
    }
    _filing.fileSent(stats.report, tracks);
    measured = _sentMeter.measure(stats.raw, now);
    news = _conditions.observeStatsOfSendTransport(stats.raw);
  });
  for (const auto& limitation : news) {
    limitation.trace();
    raise(limitation);
  }
  tellMeasured(measured, tracks);
}

void TransportMonitor::onRecieveTransportStatsCollected(const CollectedStats& stats) {
  const auto tracks = tracksOf(_registry->consumers(), "");
  const auto now = _context->platform->scheduler->wallClockMs();
  StreamMeter::Measured measured;
  std::vector<LinkConditions::StreamNews> news;
  _context->stateQueue->sync([&] {
    if (!isIn(_recvProbe, stats)) return;
    if (stats.raw.empty()) {
      _filing.forgetReceived();
      measured = _receivedMeter.rest(now);
      return;
    }
    const auto entries = _filing.fileReceived(stats.report, tracks);
    measured = _receivedMeter.measure(stats.raw, now);
    news = _conditions.observeStatsOfRecvTransport(entries, static_cast<double>(now));
  });
  if (!news.empty())
    onMain(_context, [news = std::move(news)](RoomContext&, RoomClientDelegate& meeting) {
      for (const auto& each : news)
        meeting.handleStreamStateChange(each.state, each.peerId, each.trackId);
    });
  tellMeasured(measured, tracks);
}

void TransportMonitor::tellMeasured(const StreamMeter::Measured& measured,
                                    const std::vector<KnownTrack>& tracks) const {
  std::vector<StreamMeasurement> list;
  for (const auto& track : tracks)
    if (const auto found = measured.find(track.trackId); found != measured.end())
      list.push_back({track.peerId, track.streamId, found->second});
  if (list.empty()) return;
  onMain(_context, [list = std::move(list)](RoomContext&, RoomClientDelegate& meeting) {
    meeting.streamsMeasured(list);
  });
}

void TransportMonitor::raise(const LinkConditions::Limitation& limitation) const {
  onMain(_context, [limitation](RoomContext& context, RoomClientDelegate& meeting) {
    meeting.qualityLimitationInternal(limitation.type, limitation.state,
                                      context.platform->scheduler->wallClockMs());
  });
}

}  // namespace kestrova
