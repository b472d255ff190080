#include <kestrova/platform/linux/mediasoup/RecvHandler.h>

#include <algorithm>

namespace kestrova::mediasoup {
namespace {

bool usesSsrc(const RemoteSection& section, std::uint32_t ssrc) {
  return ssrc != 0 && (section.ssrc == ssrc || section.rtxSsrc == ssrc);
}

/// The payload type of an Opus sender that announces stereo; 0 for any other.
int stereoPayloadType(const RemoteSection& section) {
  const auto& codec = section.codecs.front();
  const bool stereo = sameText(codec.name(), "opus") &&
                      parameterNumber(codec.parameters, "sprop-stereo").value_or(0) == 1;
  return stereo ? codec.payloadType : 0;
}

}  // namespace

RecvHandler::RecvHandler(Engine& engine, RemoteTransport remote, ICETransportPolicy policy,
                         CommonCapabilities common, PeerConnection::StateHandler onState)
    : _connection(engine, remote.iceServers, policy, std::move(onState)),
      _remote(std::move(remote), RemoteSdp::Role::offerer),
      _common(std::move(common)) {}

std::string RecvHandler::freeMid() {
  std::string mid;
  do mid = std::to_string(_nextMid++);
  while (_remote.has(mid));
  return mid;
}

RemoteSection RecvHandler::sectionOf(const std::string& trackId, MediaKind kind,
                                     RtpParameters parameters) {
  if (!canReceive(_common, parameters))
    throw MediasoupError("the server sends a codec that was not offered to it");
  RemoteSection section;
  section.kind = kind;
  section.direction = Direction::sendonly;
  section.mid = parameters.mid.empty() ? freeMid() : parameters.mid;
  if (_remote.has(section.mid)) throw MediasoupError("the server gives a mid that is in use");

  const auto& media = parameters.codecs.front();
  section.codecs = chosenCodecs(parameters.codecs, media);
  const auto capabilities = receivingCapabilities(_common);
  std::erase_if(section.codecs, [&](const RtpCodec& codec) {
    return codec.isRtx() && std::none_of(capabilities.codecs.begin(), capabilities.codecs.end(),
                                         [&](const RtpCodec& known) {
                                           return known.isRtx() &&
                                                  known.payloadType == codec.payloadType &&
                                                  known.apt() == codec.apt();
                                         });
  });
  for (auto& extension : parameters.headerExtensions) {
    const bool known = std::any_of(
        capabilities.headerExtensions.begin(), capabilities.headerExtensions.end(),
        [&](const auto& other) { return other.kind == kind && other.uri == extension.uri; });
    if (known) section.headerExtensions.push_back(std::move(extension));
  }

  if (parameters.encodings.empty() || !parameters.encodings.front().ssrc)
    throw MediasoupError("the server gives no SSRC");
  section.ssrc = *parameters.encodings.front().ssrc;
  if (section.codecs.size() > 1) section.rtxSsrc = parameters.encodings.front().rtxSsrc.value_or(0);
  bool taken = section.ssrc == section.rtxSsrc;
  for (const auto& other : _remote.sections())
    taken = taken || usesSsrc(other, section.ssrc) || usesSsrc(other, section.rtxSsrc);
  if (taken) throw MediasoupError("the server gives an SSRC that is in use");
  section.cname = parameters.cname.empty() ? "-" : parameters.cname;
  // Tracks of one sender stay in step with each other; `-` is the name of no stream at all.
  section.streamId = isToken(section.cname) && section.cname != "-" ? section.cname : "stream";
  section.trackId = isToken(trackId) ? trackId : "track-" + section.mid;
  return section;
}

std::string RecvHandler::negotiate(const RemoteSection* added,
                                   rtc::scoped_refptr<e2ee::FrameGate> gate) {
  _connection.setRemote(webrtc::SdpType::kOffer, _remote.text());
  // Before anything can be received: a decoder must not see ciphertext.
  const auto gated = added && gate ? _connection.transceiver(added->mid) : nullptr;
  if (gated) gated->receiver()->SetDepacketizerToDecoderFrameTransformer(std::move(gate));
  auto answer = _connection.createAnswer();
  if (added)
    if (const int type = stereoPayloadType(*added)) answer = withStereo(answer, added->mid, type);
  _connection.setLocal(webrtc::SdpType::kAnswer, answer);
  return answer;
}

RecvHandler::Received RecvHandler::receive(const std::string& trackId, MediaKind kind,
                                           RtpParameters parameters, bool encrypted) {
  const auto section = sectionOf(trackId, kind, std::move(parameters));
  rtc::scoped_refptr<e2ee::FrameGate> gate;
  if (encrypted)
    gate =
        rtc::make_ref_counted<e2ee::FrameGate>(e2ee::frameCodec(section.codecs.front().mimeType));
  const auto before = _remote.snapshot();
  _remote.put(_remote.freeIndex(), section);
  SdpSession answer;
  try {
    answer = parseSdp(negotiate(&section, gate));
  } catch (...) {
    _remote.restore(before);
    _connection.rollBack();
    throw;
  }
  const auto own = std::find_if(answer.media.begin(), answer.media.end(),
                                [&](const SdpMedia& media) { return media.mid() == section.mid; });
  auto transceiver = _connection.transceiver(section.mid);
  if (!transceiver || own == answer.media.end() || own->port == 0) {
    _remote.close(section.mid);
    negotiate(nullptr);
    throw MediasoupError("the WebRTC engine refuses to receive the track");
  }
  _transceivers[section.mid] = transceiver;
  return {section.mid, transceiver->receiver()->track(), offeredFingerprint(answer),
          std::move(gate)};
}

void RecvHandler::stop(const std::vector<std::string>& mids) {
  bool any = false;
  for (const auto& mid : mids) {
    if (_transceivers.erase(mid) == 0) continue;
    _remote.close(mid);
    any = true;
  }
  if (!any) return;
  try {
    negotiate(nullptr);
  } catch (const MediasoupError&) {
    _connection.rollBack();
  }
}

void RecvHandler::restartIce(IceParameters ice) {
  const auto before = _remote.snapshot();
  _remote.setIce(std::move(ice));
  if (_remote.sections().empty()) return;
  try {
    negotiate(nullptr);
  } catch (...) {
    _remote.restore(before);
    _connection.rollBack();
    throw;
  }
}

void RecvHandler::stats(const std::string& mid, PeerConnection::StatsHandler done) {
  if (mid.empty()) return _connection.stats(nullptr, nullptr, std::move(done));
  const auto found = _transceivers.find(mid);
  if (found == _transceivers.end()) return done("[]");
  _connection.stats(nullptr, found->second->receiver(), std::move(done));
}

}  // namespace kestrova::mediasoup
