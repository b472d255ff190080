#pragma once

#include <kestrova/platform/linux/mediasoup/RtpParameters.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Reading the engine's own descriptions (RFC 8866, RFC 8829).
namespace kestrova::mediasoup {

/// The "a=" lines of a session or of one media section.
class SdpAttributes {
public:
  void add(std::string_view line) { _lines.emplace_back(line); }
  /// The value of the first attribute of that name; nothing if there is none. Empty for a flag.
  std::optional<std::string_view> first(std::string_view name) const;
  std::vector<std::string_view> all(std::string_view name) const;

private:
  std::vector<std::string> _lines;
};

struct SdpMedia {
  std::string kind;
  int port = 0;
  SdpAttributes attributes;
  std::string mid() const;
};

struct SdpSession {
  SdpAttributes attributes;
  std::vector<SdpMedia> media;
};

SdpSession parseSdp(std::string_view sdp);

/// The codecs and header extensions that an offer names, without repeats.
RtpCapabilities offeredCapabilities(const SdpSession& offer);

/// What one section of our offer says of its sender.
struct OfferedSender {
  std::string cname;
  /// Each with its RTX one where there is one. Empty where streams are told apart by rid.
  std::vector<std::pair<std::uint32_t, std::optional<std::uint32_t>>> ssrcs;
};
OfferedSender offeredSender(const SdpMedia& media);

/// The header extensions of a section, by the ids the section gives them.
std::vector<RtpHeaderExtension> offeredExtensions(const SdpMedia& media);

struct DtlsFingerprint {
  std::string algorithm;
  std::string value;
};
/// The fingerprint of a description, wherever it stands. \throws MediasoupError without one
DtlsFingerprint offeredFingerprint(const SdpSession& session);

/// The description with "stereo=1" for the payload type in the section `mid`: the receiver's
/// consent that RFC 7587 asks for.
std::string withStereo(std::string_view sdp, std::string_view mid, int payloadType);

}  // namespace kestrova::mediasoup
