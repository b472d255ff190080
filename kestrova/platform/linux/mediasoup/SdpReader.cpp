#include <kestrova/platform/linux/mediasoup/SdpReader.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <set>

namespace kestrova::mediasoup {
namespace {

/// Cuts `text` at the first `delimiter`; what follows it stays in `text`.
std::string_view take(std::string_view& text, char delimiter) {
  const auto end = text.find(delimiter);
  const auto head = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  return head;
}

template <class Number>
std::optional<Number> numberIn(std::string_view text) {
  Number value = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size()) return std::nullopt;
  return value;
}

Dictionary fmtpOf(std::string_view format) {
  Dictionary result;
  while (!format.empty()) {
    auto value = take(format, ';');
    while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    const auto key = take(value, '=');
    if (key.empty() || value.empty()) continue;
    const auto whole = numberIn<std::int64_t>(value);
    // Six hexadecimal digits may happen to be decimal ones.
    if (whole && key != "profile-level-id")
      result[key] = *whole;
    else
      result[key] = value;
  }
  return result;
}

std::optional<RtpCodec> codecOf(MediaKind kind, std::string_view rtpmap) {
  RtpCodec codec;
  codec.kind = kind;
  const auto type = numberIn<int>(take(rtpmap, ' '));
  const auto name = take(rtpmap, '/');
  const auto clockRate = numberIn<int>(take(rtpmap, '/'));
  if (!type || name.empty() || !clockRate) return std::nullopt;
  codec.payloadType = *type;
  codec.mimeType = std::string(kindText(kind)) + "/" + std::string(name);
  codec.clockRate = *clockRate;
  if (kind == MediaKind::audio) codec.channels = numberIn<int>(rtpmap).value_or(1);
  return codec;
}

std::optional<MediaKind> mediaKind(const SdpMedia& media) {
  if (media.kind == "audio") return MediaKind::audio;
  if (media.kind == "video") return MediaKind::video;
  return std::nullopt;
}

void addCodecs(const SdpMedia& media, MediaKind kind, std::vector<RtpCodec>& codecs) {
  std::map<int, RtpCodec> byType;
  std::vector<int> order;
  for (const auto rtpmap : media.attributes.all("rtpmap"))
    if (auto codec = codecOf(kind, rtpmap)) {
      order.push_back(codec->payloadType);
      byType.insert_or_assign(codec->payloadType, std::move(*codec));
    }
  for (auto fmtp : media.attributes.all("fmtp")) {
    const auto type = numberIn<int>(take(fmtp, ' '));
    if (type && byType.count(*type)) byType[*type].parameters = fmtpOf(fmtp);
  }
  for (auto line : media.attributes.all("rtcp-fb")) {
    const auto whose = take(line, ' ');
    const RtcpFeedback feedback{std::string(take(line, ' ')), std::string(line)};
    for (auto& [type, codec] : byType)
      if (whose == "*" || whose == std::to_string(type)) codec.rtcpFeedback.push_back(feedback);
  }
  for (const int type : order) codecs.push_back(byType.at(type));
}

}  // namespace

std::optional<std::string_view> SdpAttributes::first(std::string_view name) const {
  const auto found = all(name);
  if (found.empty()) return std::nullopt;
  return found.front();
}

std::vector<std::string_view> SdpAttributes::all(std::string_view name) const {
  std::vector<std::string_view> result;
  for (const auto& line : _lines) {
    std::string_view rest = line;
    if (!rest.starts_with(name)) continue;
    rest.remove_prefix(name.size());
    if (rest.empty())
      result.push_back(rest);
    else if (rest.front() == ':')
      result.push_back(rest.substr(1));
  }
  return result;
}

std::string SdpMedia::mid() const {
  return std::string(attributes.first("mid").value_or(""));
}

SdpSession parseSdp(std::string_view sdp) {
  SdpSession session;
  while (!sdp.empty()) {
    auto line = take(sdp, '\n');
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.starts_with("m=")) {
      line.remove_prefix(2);
      SdpMedia media;
      media.kind = std::string(take(line, ' '));
      media.port = numberIn<int>(take(line, ' ')).value_or(0);
      session.media.push_back(std::move(media));
    } else if (line.starts_with("a=")) {
      line.remove_prefix(2);
      (session.media.empty() ? session.attributes : session.media.back().attributes).add(line);
    }
  }
  return session;
}

RtpCapabilities offeredCapabilities(const SdpSession& offer) {
  RtpCapabilities result;
  std::set<MediaKind> seen;
  for (const auto& media : offer.media) {
    const auto kind = mediaKind(media);
    if (!kind || !seen.insert(*kind).second) continue;
    addCodecs(media, *kind, result.codecs);
    for (auto& extension : offeredExtensions(media)) {
      extension.kind = *kind;
      result.headerExtensions.push_back(std::move(extension));
    }
  }
  return result;
}

std::vector<RtpHeaderExtension> offeredExtensions(const SdpMedia& media) {
  std::vector<RtpHeaderExtension> result;
  for (auto line : media.attributes.all("extmap")) {
    auto number = take(line, ' ');
    const auto id = numberIn<int>(take(number, '/'));
    const auto uri = take(line, ' ');
    if (!id || uri.empty()) continue;
    result.push_back({mediaKind(media).value_or(MediaKind::audio), std::string(uri), *id, false,
                      Direction::sendrecv});
  }
  return result;
}

OfferedSender offeredSender(const SdpMedia& media) {
  OfferedSender sender;
  std::set<std::uint32_t> repairs;
  std::map<std::uint32_t, std::uint32_t> repairOf;
  for (auto line : media.attributes.all("ssrc-group")) {
    if (take(line, ' ') != "FID") continue;
    const auto first = numberIn<std::uint32_t>(take(line, ' '));
    const auto second = numberIn<std::uint32_t>(line);
    if (!first || !second) continue;
    repairOf[*first] = *second;
    repairs.insert(*second);
  }
  for (auto line : media.attributes.all("ssrc")) {
    const auto ssrc = numberIn<std::uint32_t>(take(line, ' '));
    if (!ssrc) continue;
    if (line.starts_with("cname:") && sender.cname.empty()) sender.cname = line.substr(6);
    const bool known = std::any_of(sender.ssrcs.begin(), sender.ssrcs.end(),
                                   [&](const auto& pair) { return pair.first == *ssrc; });
    if (known || repairs.count(*ssrc)) continue;
    const auto repair = repairOf.find(*ssrc);
    sender.ssrcs.emplace_back(
        *ssrc, repair == repairOf.end() ? std::nullopt : std::optional(repair->second));
  }
  return sender;
}

DtlsFingerprint offeredFingerprint(const SdpSession& session) {
  auto line = session.attributes.first("fingerprint");
  for (const auto& media : session.media)
    if (!line) line = media.attributes.first("fingerprint");
  if (!line) throw MediasoupError("the engine's description has no DTLS fingerprint");
  std::string_view rest = *line;
  const auto algorithm = take(rest, ' ');
  return {std::string(algorithm), std::string(rest)};
}

std::string withStereo(std::string_view sdp, std::string_view mid, int payloadType) {
  const auto start = sdp.find("a=mid:" + std::string(mid) + "\r\n");
  if (start == std::string_view::npos) return std::string(sdp);
  const auto section = sdp.rfind("m=", start);
  const auto line = sdp.find("a=fmtp:" + std::to_string(payloadType) + " ", section);
  const auto next = sdp.find("\r\nm=", section);
  if (line == std::string_view::npos || (next != std::string_view::npos && line > next))
    return std::string(sdp);
  const auto end = std::min(sdp.find("\r\n", line), sdp.size());
  std::string result(sdp);
  if (result.substr(line, end - line).find(";stereo=1") == std::string::npos)
    result.insert(end, ";stereo=1");
  return result;
}

}  // namespace kestrova::mediasoup
