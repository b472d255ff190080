#include <kestrova/platform/linux/mediasoup/H264Profile.h>
#include <kestrova/platform/linux/mediasoup/Ortc.h>

#include <algorithm>

namespace kestrova::mediasoup {
namespace {

constexpr std::string_view kTransportWideExtension =
    "http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01";
constexpr std::string_view kAbsSendTimeExtension =
    "http://www.webrtc.org/experiments/rtp-hdrext/abs-send-time";

const RtpCodec* rtxOf(const std::vector<RtpCodec>& codecs, const RtpCodec& media) {
  const auto found = std::find_if(codecs.begin(), codecs.end(), [&](const RtpCodec& codec) {
    return codec.isRtx() && codec.kind == media.kind && codec.apt() == media.payloadType;
  });
  return found == codecs.end() ? nullptr : &*found;
}

Direction mirrored(Direction direction) {
  switch (direction) {
    case Direction::sendonly:
      return Direction::recvonly;
    case Direction::recvonly:
      return Direction::sendonly;
    default:
      return direction;
  }
}

CommonCodec commonCodec(const RtpCapabilities& local, const RtpCodec& ours,
                        const RtpCapabilities& remote, const RtpCodec& theirs) {
  CommonCodec common;
  common.kind = ours.kind;
  common.mimeType = ours.mimeType;
  common.clockRate = ours.clockRate;
  common.channels = ours.channels;
  common.localPayloadType = ours.payloadType;
  common.remotePayloadType = theirs.payloadType;
  common.localParameters = ours.parameters;
  common.remoteParameters = theirs.parameters;
  if (sameText(ours.name(), "H264")) {
    const auto level = answeredH264(ours.parameters, theirs.parameters);
    common.localParameters["profile-level-id"] = level;
    common.remoteParameters["profile-level-id"] = level;
  }
  for (const auto& feedback : ours.rtcpFeedback)
    if (std::find(theirs.rtcpFeedback.begin(), theirs.rtcpFeedback.end(), feedback) !=
        theirs.rtcpFeedback.end())
      common.rtcpFeedback.push_back(feedback);
  const auto* ourRtx = rtxOf(local.codecs, ours);
  const auto* theirRtx = rtxOf(remote.codecs, theirs);
  if (ourRtx && theirRtx) {
    common.localRtxPayloadType = ourRtx->payloadType;
    common.remoteRtxPayloadType = theirRtx->payloadType;
  }
  return common;
}

RtpCodec mediaCodec(const CommonCodec& common, int payloadType, const Dictionary& parameters) {
  RtpCodec codec;
  codec.kind = common.kind;
  codec.mimeType = common.mimeType;
  codec.payloadType = payloadType;
  codec.clockRate = common.clockRate;
  codec.channels = common.channels;
  codec.parameters = parameters;
  codec.rtcpFeedback = common.rtcpFeedback;
  return codec;
}

std::optional<RtpCodec> rtxCodec(const CommonCodec& common, std::optional<int> payloadType,
                                 int repaired) {
  if (!payloadType) return std::nullopt;
  RtpCodec codec;
  codec.kind = common.kind;
  codec.mimeType = std::string(kindText(common.kind)) + "/rtx";
  codec.payloadType = *payloadType;
  codec.clockRate = common.clockRate;
  codec.parameters["apt"] = repaired;
  return codec;
}

enum class Side { local, remote };

RtpParameters parametersOf(const CommonCapabilities& common, MediaKind kind, Side side) {
  RtpParameters result;
  for (const auto& codec : common.codecs) {
    if (codec.kind != kind) continue;
    result.codecs.push_back(
        mediaCodec(codec, codec.localPayloadType,
                   side == Side::local ? codec.localParameters : codec.remoteParameters));
    if (auto rtx = rtxCodec(codec, codec.localRtxPayloadType, codec.localPayloadType))
      result.codecs.push_back(std::move(*rtx));
  }
  for (const auto& extension : common.headerExtensions) {
    const bool sends =
        extension.direction == Direction::sendrecv || extension.direction == Direction::sendonly;
    if (extension.kind == kind && sends)
      result.headerExtensions.push_back(
          {kind, extension.uri, extension.sendId, extension.encrypt, Direction::sendrecv});
  }
  return result;
}

bool hasExtension(const RtpParameters& parameters, std::string_view uri) {
  return std::any_of(parameters.headerExtensions.begin(), parameters.headerExtensions.end(),
                     [&](const RtpHeaderExtension& extension) { return extension.uri == uri; });
}

}  // namespace

bool sameCodec(const RtpCodec& a, const RtpCodec& b) {
  if (!sameText(a.mimeType, b.mimeType) || a.clockRate != b.clockRate || a.channels != b.channels)
    return false;
  if (sameText(a.name(), "H264")) return sameH264(a.parameters, b.parameters);
  if (sameText(a.name(), "VP9"))
    return parameterNumber(a.parameters, "profile-id").value_or(0) ==
           parameterNumber(b.parameters, "profile-id").value_or(0);
  if (sameText(a.name(), "AV1"))
    return parameterNumber(a.parameters, "profile").value_or(0) ==
           parameterNumber(b.parameters, "profile").value_or(0);
  return true;
}

CommonCapabilities commonCapabilities(const RtpCapabilities& local, const RtpCapabilities& remote) {
  CommonCapabilities result;
  for (const auto& theirs : remote.codecs) {
    if (theirs.isRtx()) continue;
    const auto ours = std::find_if(
        local.codecs.begin(), local.codecs.end(),
        [&](const RtpCodec& codec) { return !codec.isRtx() && sameCodec(codec, theirs); });
    if (ours == local.codecs.end()) continue;
    // A router may name one codec twice; the second would have the payload type of the first.
    const bool taken =
        std::any_of(result.codecs.begin(), result.codecs.end(),
                    [&](const auto& known) { return known.localPayloadType == ours->payloadType; });
    if (taken) continue;
    result.codecs.push_back(commonCodec(local, *ours, remote, theirs));
  }
  for (const auto& theirs : remote.headerExtensions)
    for (const auto& ours : local.headerExtensions)
      if (ours.kind == theirs.kind && ours.uri == theirs.uri) {
        result.headerExtensions.push_back(
            {ours.kind, ours.uri, ours.id, theirs.id, ours.encrypt, mirrored(theirs.direction)});
        break;
      }
  return result;
}

RtpCapabilities receivingCapabilities(const CommonCapabilities& common) {
  RtpCapabilities result;
  for (const auto& codec : common.codecs) {
    result.codecs.push_back(mediaCodec(codec, codec.remotePayloadType, codec.localParameters));
    if (auto rtx = rtxCodec(codec, codec.remoteRtxPayloadType, codec.remotePayloadType))
      result.codecs.push_back(std::move(*rtx));
  }
  for (const auto& extension : common.headerExtensions)
    if (extension.direction == Direction::sendrecv || extension.direction == Direction::recvonly)
      result.headerExtensions.push_back({extension.kind, extension.uri, extension.recvId,
                                         extension.encrypt, extension.direction});
  return result;
}

bool canSend(const CommonCapabilities& common, MediaKind kind) {
  return std::any_of(common.codecs.begin(), common.codecs.end(),
                     [&](const CommonCodec& codec) { return codec.kind == kind; });
}

bool canReceive(const CommonCapabilities& common, const RtpParameters& parameters) {
  if (parameters.codecs.empty()) return false;
  const auto& media = parameters.codecs.front();
  return std::any_of(common.codecs.begin(), common.codecs.end(), [&](const CommonCodec& codec) {
    return codec.remotePayloadType == media.payloadType &&
           sameText(codec.mimeType, media.mimeType) && codec.clockRate == media.clockRate &&
           codec.channels == media.channels;
  });
}

RtpParameters sendingParameters(const CommonCapabilities& common, MediaKind kind) {
  return parametersOf(common, kind, Side::local);
}

RtpParameters answeringParameters(const CommonCapabilities& common, MediaKind kind) {
  auto result = parametersOf(common, kind, Side::remote);
  std::string_view superfluous;
  if (hasExtension(result, kTransportWideExtension))
    superfluous = "goog-remb";
  else if (hasExtension(result, kAbsSendTimeExtension))
    superfluous = "transport-cc";
  for (auto& codec : result.codecs)
    std::erase_if(codec.rtcpFeedback, [&](const RtcpFeedback& feedback) {
      const bool estimates = feedback.type == "transport-cc" || feedback.type == "goog-remb";
      return estimates && (superfluous.empty() || feedback.type == superfluous);
    });
  return result;
}

std::vector<RtpCodec> chosenCodecs(const std::vector<RtpCodec>& codecs,
                                   const std::optional<RtpCodec>& wanted) {
  const RtpCodec* chosen = nullptr;
  for (const auto& codec : codecs) {
    if (codec.isRtx()) continue;
    const bool fits = wanted ? sameCodec(codec, *wanted) : sameText(codec.name(), "VP8");
    if (!chosen && (fits || !wanted)) chosen = &codec;
    if (!fits) continue;
    chosen = &codec;
    break;
  }
  if (!chosen)
    throw MediasoupError(wanted
                             ? "the codec " + wanted->mimeType + " is not in common with the server"
                             : "there is no codec in common with the server");
  std::vector<RtpCodec> result{*chosen};
  if (const auto* rtx = rtxOf(codecs, *chosen)) result.push_back(*rtx);
  return result;
}

}  // namespace kestrova::mediasoup
