#pragma once

#include <kestrova/platform/linux/mediasoup/RtpParameters.h>

#include <optional>
#include <vector>

/// What two endpoints can say to each other: pure functions on capabilities and parameters.
namespace kestrova::mediasoup {

/// A codec that both sides know.
struct CommonCodec {
  MediaKind kind = MediaKind::audio;
  std::string mimeType;
  int clockRate = 0;
  int channels = 1;
  int localPayloadType = 0;
  std::optional<int> localRtxPayloadType;
  int remotePayloadType = 0;
  std::optional<int> remoteRtxPayloadType;
  Dictionary localParameters;
  Dictionary remoteParameters;
  std::vector<RtcpFeedback> rtcpFeedback;
};

struct CommonExtension {
  MediaKind kind = MediaKind::audio;
  std::string uri;
  int sendId = 0;  ///< the local side's preferred id
  int recvId = 0;  ///< the remote side's
  bool encrypt = false;
  Direction direction = Direction::sendrecv;  ///< as seen from the local side
};

struct CommonCapabilities {
  std::vector<CommonCodec> codecs;
  std::vector<CommonExtension> headerExtensions;
};

/// Whether two descriptions mean one codec: the parameters that change the bitstream are compared.
bool sameCodec(const RtpCodec& a, const RtpCodec& b);

/// What both sides have, in the order of `remote`.
CommonCapabilities commonCapabilities(const RtpCapabilities& local, const RtpCapabilities& remote);
/// What the local side is able to receive. The payload types are the remote side's: a router sends
/// with its own.
RtpCapabilities receivingCapabilities(const CommonCapabilities& common);
bool canSend(const CommonCapabilities& common, MediaKind kind);
/// Whether the first codec of `parameters` is one that `receivingCapabilities` offered, with the
/// payload type offered.
bool canReceive(const CommonCapabilities& common, const RtpParameters& parameters);

/// The codecs and header extensions with which the local side sends.
RtpParameters sendingParameters(const CommonCapabilities& common, MediaKind kind);
/// The same as the remote side's answer states them. One of the two kinds of bandwidth estimation
/// is left: transport-wide where its header extension is there.
RtpParameters answeringParameters(const CommonCapabilities& common, MediaKind kind);
/// The one codec to be used, with its RTX: the one like `wanted`; without that VP8, which every
/// receiver decodes and whose layers a server can pick, or the first where there is none.
/// \throws MediasoupError if there is none
std::vector<RtpCodec> chosenCodecs(const std::vector<RtpCodec>& codecs,
                                   const std::optional<RtpCodec>& wanted);

}  // namespace kestrova::mediasoup
