#pragma once

#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Values.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The dictionaries of mediasoup's "RTP Parameters and Capabilities" document as records. Whatever
/// is read from text is checked here, once: the rest of the layer and the engine may trust the
/// records.
namespace kestrova::mediasoup {

struct RtcpFeedback {
  std::string type;
  std::string parameter;
  bool operator==(const RtcpFeedback&) const = default;
};

/// A codec, as capability (the payload type is the preferred one) or as parameter.
struct RtpCodec {
  MediaKind kind = MediaKind::audio;
  std::string mimeType;
  int payloadType = 0;
  int clockRate = 0;
  int channels = 1;
  Dictionary parameters;
  std::vector<RtcpFeedback> rtcpFeedback;

  /// The part of the MIME type after the slash.
  std::string_view name() const;
  bool isRtx() const;
  /// The payload type that an RTX codec repairs; 0 if it names none.
  int apt() const;
};

enum class Direction { sendrecv, sendonly, recvonly, inactive };

struct RtpHeaderExtension {
  MediaKind kind = MediaKind::audio;
  std::string uri;
  int id = 0;
  bool encrypt = false;
  Direction direction = Direction::sendrecv;
};

struct RtpCapabilities {
  std::vector<RtpCodec> codecs;
  std::vector<RtpHeaderExtension> headerExtensions;
};

struct RtpEncoding {
  std::optional<std::uint32_t> ssrc;
  std::optional<std::uint32_t> rtxSsrc;
  std::string rid;
  bool dtx = false;
  std::string scalabilityMode;
  std::optional<int> maxBitrate;
  std::optional<double> scaleResolutionDownBy;
};

struct RtpParameters {
  std::string mid;
  std::vector<RtpCodec> codecs;
  std::vector<RtpHeaderExtension> headerExtensions;
  std::vector<RtpEncoding> encodings;
  std::string cname;
};

std::string_view kindText(MediaKind kind);
bool sameText(std::string_view a, std::string_view b);  ///< ignoring the case of ASCII letters

/// \throws MediasoupError
RtpCapabilities parseRtpCapabilities(std::string_view json);
/// What a server says of a track to receive. \throws MediasoupError
RtpParameters parseRtpParameters(std::string_view json, MediaKind kind);
/// One codec of a capabilities' list. \throws MediasoupError
RtpCodec parseCodecCapability(std::string_view json);

std::string toJson(const RtpCapabilities& capabilities);
std::string toJson(const RtpParameters& parameters);

/// Whole numbers among a codec's parameters travel as numbers or as texts.
std::optional<std::int64_t> parameterNumber(const Dictionary& parameters, std::string_view key);
/// A codec parameter as text; `fallback` when there is none.
std::string parameterText(const Dictionary& parameters, std::string_view key,
                          std::string_view fallback);

/// Letters, digits and ".", "_", "-", "+": what may stand in a description without a second look.
bool isToken(std::string_view text);
/// Visible ASCII, at most 255 characters.
bool isVisible(std::string_view text);

}  // namespace kestrova::mediasoup
