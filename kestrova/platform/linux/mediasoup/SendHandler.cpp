#include <kestrova/platform/linux/mediasoup/CodecOptions.h>
#include <kestrova/platform/linux/mediasoup/SendHandler.h>

#include <algorithm>
#include <cmath>
#include <set>

namespace kestrova::mediasoup {
namespace {

/// More layers than the engine's encoders make would be dropped in silence.
constexpr std::size_t kMostLayers = 3;
/// Where bandwidth estimation begins: from its default of 300 kbit/s, 720p needs seconds to get
/// there.
constexpr int kStartBitrateBps = 1'000'000;
/// How far the estimate may rise. Raising this is what makes the engine probe again: for 15 ms, at
/// twice what its encoders can use. The first value is where the engine's own first probes end, so
/// that it holds them for done and is ready; the next ones are far above what a meeting needs.
constexpr int kFirstCeilingBps = 5'000'000;
constexpr int kNextCeilingBps = 100'000'000;
constexpr int kCeilingStepBps = 1'000'000;
/// Of a video encoding without a limit of its own: the engine's for 720p.
constexpr int kUsualVideoBitrateBps = 2'500'000;
/// The stream that tracks of one transport belong to: the same one, for lip synchronisation.
constexpr const char* kStreamId = "kestrova";

webrtc::Priority priorityOf(RTCRtpEncodingParameters::Priority priority) {
  switch (priority) {
    case RTCRtpEncodingParameters::Priority::veryLow:
      return webrtc::Priority::kVeryLow;
    case RTCRtpEncodingParameters::Priority::medium:
      return webrtc::Priority::kMedium;
    case RTCRtpEncodingParameters::Priority::high:
      return webrtc::Priority::kHigh;
    case RTCRtpEncodingParameters::Priority::low:
      break;
  }
  return webrtc::Priority::kLow;
}

void check(bool sane, const char* what) {
  if (!sane) throw MediasoupError(what);
}

webrtc::RtpEncodingParameters engineEncoding(const RTCRtpEncodingParameters& wanted) {
  webrtc::RtpEncodingParameters encoding;
  encoding.active = wanted.isActive;
  encoding.network_priority = priorityOf(wanted.networkPriority);
  if (wanted.maxBitrateBps) {
    check(*wanted.maxBitrateBps > 0, "an encoding's maximum bitrate is not positive");
    encoding.max_bitrate_bps = *wanted.maxBitrateBps;
  }
  if (wanted.maxFramerate) {
    check(std::isfinite(*wanted.maxFramerate) && *wanted.maxFramerate > 0,
          "an encoding's maximum frame rate is not positive");
    encoding.max_framerate = *wanted.maxFramerate;
  }
  if (wanted.scaleResolutionDownBy) {
    check(std::isfinite(*wanted.scaleResolutionDownBy) && *wanted.scaleResolutionDownBy >= 1,
          "an encoding's scale is below 1");
    encoding.scale_resolution_down_by = *wanted.scaleResolutionDownBy;
  }
  return encoding;
}

}  // namespace

SendHandler::SendHandler(Engine& engine, RemoteTransport remote, ICETransportPolicy policy,
                         CommonCapabilities common, PeerConnection::StateHandler onState)
    : _connection(engine, remote.iceServers, policy, std::move(onState)),
      _remote(std::move(remote), RemoteSdp::Role::answerer),
      _common(std::move(common)),
      _ceilingBps(kFirstCeilingBps) {
  webrtc::BitrateSettings bitrate;
  bitrate.start_bitrate_bps = kStartBitrateBps;
  bitrate.max_bitrate_bps = _ceilingBps;
  _connection.engine().SetBitrate(bitrate);
}

SendHandler::Streams SendHandler::streamsOf(const SendRequest& request,
                                            const RtpCodec& codec) const {
  check(request.encodings.size() <= kMostLayers, "too many encodings");
  check(request.kind == MediaKind::video || request.encodings.size() <= 1,
        "audio has one encoding at most");
  const bool layered = request.encodings.size() > 1;
  Streams streams;
  std::set<std::string> rids;
  for (const auto& wanted : request.encodings) {
    auto engine = engineEncoding(wanted);
    RtpEncoding server;
    if (layered) {
      engine.rid = wanted.rid;
      if (engine.rid.empty()) engine.rid.append("r").append(std::to_string(rids.size()));
      // RFC 8851, and what fits into the header extension that carries it.
      const bool legal =
          engine.rid.size() <= 16 && std::all_of(engine.rid.begin(), engine.rid.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c));
          });
      check(legal && rids.insert(engine.rid).second, "an encoding's rid is malformed or taken");
      server.rid = engine.rid;
    }
    auto mode = wanted.scalabilityMode.value_or(layered ? "L1T3" : "");
    if (request.kind == MediaKind::video && !mode.empty()) {
      check(isScalabilityMode(codec, mode), "an encoding's scalability mode is unknown");
      engine.scalability_mode = mode;
      server.scalabilityMode = mode;
    }
    server.maxBitrate = wanted.maxBitrateBps;
    server.scaleResolutionDownBy = wanted.scaleResolutionDownBy;
    streams.forEngine.push_back(std::move(engine));
    streams.forServer.push_back(std::move(server));
  }
  if (streams.forServer.empty()) streams.forServer.emplace_back();
  if (request.kind == MediaKind::audio)
    streams.forServer.front().dtx = boolean(request.codecOptions, "opusDtx", false);
  return streams;
}

SendHandler::Sent SendHandler::send(const SendRequest& request) {
  auto sending = sendingParameters(_common, request.kind);
  auto answering = answeringParameters(_common, request.kind);
  sending.codecs = chosenCodecs(sending.codecs, request.codec);
  answering.codecs = chosenCodecs(answering.codecs, sending.codecs.front());
  applyCodecOptions(request.codecOptions, sending.codecs.front(), answering.codecs.front());
  auto streams = streamsOf(request, sending.codecs.front());
  sending.encodings = std::move(streams.forServer);

  webrtc::RtpTransceiverInit init;
  init.direction = webrtc::RtpTransceiverDirection::kSendOnly;
  init.stream_ids = {kStreamId};
  init.send_encodings = std::move(streams.forEngine);
  auto added = _connection.engine().AddTransceiver(request.track->engineTrack(), init);
  if (!added.ok())
    throw MediasoupError(std::string("the track is refused: ") + added.error().message());
  Sender sender{added.MoveValue(), {}};
  rtc::scoped_refptr<e2ee::FrameGate> gate;
  if (request.encrypted) {
    gate =
        rtc::make_ref_counted<e2ee::FrameGate>(e2ee::frameCodec(sending.codecs.front().mimeType));
    sender.transceiver->sender()->SetEncoderToPacketizerFrameTransformer(gate);
  }
  auto parameters = sender.transceiver->sender()->GetParameters();
  for (auto& encoding : parameters.encodings)
    sender.active.push_back(std::exchange(encoding.active, false));
  const auto held = sender.transceiver->sender()->SetParameters(parameters);

  const auto before = _remote.snapshot();
  try {
    if (!held.ok())
      throw MediasoupError(std::string("the encodings are refused: ") + held.message());
    auto sent = negotiate(request, std::move(sending), std::move(answering));
    sent.sender = sender.transceiver->sender();
    sent.gate = std::move(gate);
    _senders[sent.mid] = std::move(sender);
    return sent;
  } catch (...) {
    _remote.restore(before);
    _connection.rollBack();
    sender.transceiver->StopStandard();
    throw;
  }
}

const SdpMedia& SendHandler::newSection(const SdpSession& offer) const {
  const auto found = std::find_if(offer.media.begin(), offer.media.end(),
                                  [&](const SdpMedia& media) { return !_remote.has(media.mid()); });
  check(found != offer.media.end(), "the engine's offer has no section for the track");
  return *found;
}

SendHandler::Sent SendHandler::negotiate(const SendRequest& request, RtpParameters sending,
                                         RtpParameters answering) {
  const auto sdp = _connection.createOffer();
  const auto offer = parseSdp(sdp);
  const auto& media = newSection(offer);
  const auto index = static_cast<std::size_t>(&media - offer.media.data());
  check(index == _remote.freeIndex() || index == _remote.sections().size(),
        "the engine's offer puts the track where another one is");

  // Header extensions go by the ids of this offer: earlier sections may have moved them.
  const auto offered = offeredExtensions(media);
  for (auto* extensions : {&sending.headerExtensions, &answering.headerExtensions}) {
    std::erase_if(*extensions, [&](RtpHeaderExtension& extension) {
      const auto same = std::find_if(offered.begin(), offered.end(),
                                     [&](const auto& other) { return other.uri == extension.uri; });
      if (same == offered.end()) return true;
      extension.id = same->id;
      return false;
    });
  }
  const auto sender = offeredSender(media);
  sending.mid = media.mid();
  sending.cname = sender.cname;
  if (sending.encodings.size() == 1 && !sender.ssrcs.empty()) {
    sending.encodings.front().ssrc = sender.ssrcs.front().first;
    // Without an RTX codec in the answer none is sent.
    if (sending.codecs.size() > 1) sending.encodings.front().rtxSsrc = sender.ssrcs.front().second;
  }

  RemoteSection section;
  section.mid = sending.mid;
  section.kind = request.kind;
  section.direction = Direction::recvonly;
  section.codecs = answering.codecs;
  section.headerExtensions = answering.headerExtensions;
  for (const auto& encoding : sending.encodings)
    if (!encoding.rid.empty()) section.rids.push_back(encoding.rid);
  _remote.put(index, std::move(section));

  _connection.setLocal(webrtc::SdpType::kOffer, sdp);
  _connection.setRemote(webrtc::SdpType::kAnswer, _remote.text());
  return {sending.mid, std::move(sending), offeredFingerprint(offer), nullptr, nullptr};
}

void SendHandler::start(const std::string& mid) {
  const auto found = _senders.find(mid);
  if (found == _senders.end()) return;
  const auto& [transceiver, active] = found->second;
  auto parameters = transceiver->sender()->GetParameters();
  for (std::size_t i = 0; i < parameters.encodings.size() && i < active.size(); ++i)
    parameters.encodings[i].active = active[i];
  transceiver->sender()->SetParameters(parameters);
}

int SendHandler::wantedBitrate() const {
  double wanted = 0;
  for (const auto& [mid, sender] : _senders) {
    if (sender.transceiver->media_type() != cricket::MEDIA_TYPE_VIDEO) continue;
    for (const auto& encoding : sender.transceiver->sender()->GetParameters().encodings)
      if (encoding.active) wanted += encoding.max_bitrate_bps.value_or(kUsualVideoBitrateBps);
  }
  return static_cast<int>(std::min(wanted, kNextCeilingBps / 2.0));
}

bool SendHandler::seekBandwidth(const std::string& statistics) {
  double available = 0;
  bool sending = false;
  const auto report = parseJson(statistics).value_or(List());
  if (!report.is_array()) return false;
  for (const auto& item : report.get_array()) {
    const auto& entry = asDictionary(item);
    available = std::max(available, number(entry, "availableOutgoingBitrate", 0));
    sending =
        sending || (text(entry, "kind", "") == "video" && number(entry, "packetsSent", 0) > 0);
  }
  if (available >= wantedBitrate()) return false;
  const double before = std::exchange(_lastEstimate, available);
  if (!sending || before == 0) return true;
  if (available < 0.95 * _ceilingBps) {
    if (available == before) return true;
    if (available < before) return false;  // the link is full already
  }
  _ceilingBps = std::max(_ceilingBps + kCeilingStepBps, kNextCeilingBps);
  webrtc::BitrateSettings bitrate;
  bitrate.max_bitrate_bps = _ceilingBps;
  _connection.engine().SetBitrate(bitrate);
  return false;
}

void SendHandler::stop(const std::vector<std::string>& mids) {
  bool any = false;
  for (const auto& mid : mids) {
    const auto found = _senders.find(mid);
    if (found == _senders.end()) continue;
    const auto transceiver = found->second.transceiver;
    _senders.erase(found);
    transceiver->sender()->SetTrack(nullptr);
    if (_remote.close(mid))
      transceiver->StopStandard();
    else
      transceiver->SetDirectionWithError(webrtc::RtpTransceiverDirection::kInactive);
    any = true;
  }
  if (!any) return;
  try {
    const auto offer = _connection.createOffer();
    _connection.setLocal(webrtc::SdpType::kOffer, offer);
    _connection.setRemote(webrtc::SdpType::kAnswer, _remote.text());
  } catch (const MediasoupError&) {
    _connection.rollBack();  // the track is off the sender in any case
  }
}

void SendHandler::restartIce(IceParameters ice) {
  const auto before = _remote.snapshot();
  _remote.setIce(std::move(ice));
  if (_remote.sections().empty()) return;
  try {
    const auto offer = _connection.createOffer(true);
    _connection.setLocal(webrtc::SdpType::kOffer, offer);
    _connection.setRemote(webrtc::SdpType::kAnswer, _remote.text());
  } catch (...) {
    _remote.restore(before);
    _connection.rollBack();
    throw;
  }
}

void SendHandler::stats(const std::string& mid, PeerConnection::StatsHandler done) {
  if (mid.empty()) return _connection.stats(nullptr, nullptr, std::move(done));
  const auto found = _senders.find(mid);
  if (found == _senders.end()) return done("[]");
  _connection.stats(found->second.transceiver->sender(), nullptr, std::move(done));
}

}  // namespace kestrova::mediasoup
