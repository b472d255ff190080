#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/linux/mediasoup/RemoteSdp.h>

#include <algorithm>

namespace kestrova::mediasoup {
namespace {

constexpr EnumTexts<Direction, 4> kDirections{{"sendrecv", "sendonly", "recvonly", "inactive"}};

template <class... Parts>
void line(std::string& sdp, const Parts&... parts) {
  (sdp.append(parts), ...);
  sdp.append("\r\n");
}

std::string number(std::uint64_t value) {
  return std::to_string(value);
}

void writeCodec(std::string& sdp, const RtpCodec& codec) {
  const auto type = std::to_string(codec.payloadType);
  std::string channels;
  if (codec.kind == MediaKind::audio && codec.channels > 1)
    channels.append("/").append(std::to_string(codec.channels));
  line(sdp, "a=rtpmap:", type, " ", codec.name(), "/", std::to_string(codec.clockRate), channels);
  std::string format;
  for (const auto& [key, value] : codec.parameters) {
    if (!format.empty()) format += ";";
    format.append(key).append("=").append(parameterText(codec.parameters, key, ""));
  }
  if (!format.empty()) line(sdp, "a=fmtp:", type, " ", format);
  for (const auto& feedback : codec.rtcpFeedback)
    line(sdp, "a=rtcp-fb:", type, " ", feedback.type, feedback.parameter.empty() ? "" : " ",
         feedback.parameter);
}

void writeCandidate(std::string& sdp, const IceCandidate& candidate) {
  std::string tcp;
  if (!candidate.tcpType.empty()) tcp.append(" tcptype ").append(candidate.tcpType);
  line(sdp, "a=candidate:", candidate.foundation, " 1 ", candidate.protocol, " ",
       number(candidate.priority), " ", candidate.address, " ", std::to_string(candidate.port),
       " typ ", candidate.type, tcp);
}

}  // namespace

RemoteSdp::RemoteSdp(RemoteTransport transport, Role role)
    : _transport(std::move(transport)), _role(role) {}

bool RemoteSdp::has(const std::string& mid) const {
  return std::any_of(_sections.begin(), _sections.end(),
                     [&](const RemoteSection& section) { return section.mid == mid; });
}

std::size_t RemoteSdp::freeIndex() const {
  const auto closed = std::find_if(_sections.begin(), _sections.end(),
                                   [](const RemoteSection& section) { return section.closed; });
  return static_cast<std::size_t>(closed - _sections.begin());
}

void RemoteSdp::put(std::size_t index, RemoteSection section) {
  if (index < _sections.size())
    _sections[index] = std::move(section);
  else
    _sections.push_back(std::move(section));
}

bool RemoteSdp::close(const std::string& mid) {
  const auto found = std::find_if(_sections.begin(), _sections.end(),
                                  [&](const RemoteSection& section) { return section.mid == mid; });
  if (found == _sections.end()) return false;
  found->direction = Direction::inactive;
  found->rids.clear();
  found->ssrc = found->rtxSsrc = 0;
  found->closed = found != _sections.begin();
  return found->closed;
}

void RemoteSdp::restore(Snapshot snapshot) {
  _transport.ice = std::move(snapshot.first);
  _sections = std::move(snapshot.second);
}

std::string RemoteSdp::text() {
  std::string sdp;
  line(sdp, "v=0");
  line(sdp, "o=- 10000 ", std::to_string(++_version), " IN IP4 0.0.0.0");
  line(sdp, "s=-");
  line(sdp, "t=0 0");
  if (_transport.ice.lite) line(sdp, "a=ice-lite");
  line(sdp, "a=fingerprint:", _transport.dtls.algorithm, " ", _transport.dtls.fingerprint);
  line(sdp, "a=msid-semantic: WMS *");
  std::string mids;
  for (const auto& section : _sections)
    if (!section.closed) mids.append(" ").append(section.mid);
  line(sdp, "a=group:BUNDLE", mids);
  for (const auto& section : _sections) writeSection(sdp, section);
  return sdp;
}

void RemoteSdp::writeSection(std::string& sdp, const RemoteSection& section) const {
  std::string types;
  for (const auto& codec : section.codecs)
    types.append(" ").append(std::to_string(codec.payloadType));
  // Any port but 0 and 9: the real ones stand in the candidates.
  line(sdp, "m=", kindText(section.kind), section.closed ? " 0" : " 7", " UDP/TLS/RTP/SAVPF",
       types);
  line(sdp, "c=IN IP4 127.0.0.1");
  for (const auto& codec : section.codecs) writeCodec(sdp, codec);
  for (const auto& extension : section.headerExtensions)
    line(sdp, "a=extmap:", std::to_string(extension.id), " ", extension.uri);
  line(sdp, "a=", kDirections(section.direction));
  line(sdp, "a=setup:", _role == Role::offerer ? "actpass" : "passive");
  line(sdp, "a=mid:", section.mid);
  if (section.ssrc != 0) line(sdp, "a=msid:", section.streamId, " ", section.trackId);
  line(sdp, "a=ice-ufrag:", _transport.ice.usernameFragment);
  line(sdp, "a=ice-pwd:", _transport.ice.password);
  for (const auto& candidate : _transport.candidates) writeCandidate(sdp, candidate);
  line(sdp, "a=end-of-candidates");
  line(sdp, "a=ice-options:renomination");
  std::string layers;
  for (const auto& rid : section.rids) {
    line(sdp, "a=rid:", rid, " recv");
    layers.append(layers.empty() ? "" : ";").append(rid);
  }
  if (!layers.empty()) line(sdp, "a=simulcast:recv ", layers);
  line(sdp, "a=rtcp-mux");
  line(sdp, "a=rtcp-rsize");
  if (section.ssrc == 0) return;
  line(sdp, "a=ssrc:", number(section.ssrc), " cname:", section.cname);
  if (section.rtxSsrc == 0) return;
  line(sdp, "a=ssrc:", number(section.rtxSsrc), " cname:", section.cname);
  line(sdp, "a=ssrc-group:FID ", number(section.ssrc), " ", number(section.rtxSsrc));
}

}  // namespace kestrova::mediasoup
