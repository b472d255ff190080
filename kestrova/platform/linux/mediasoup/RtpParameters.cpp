#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/linux/mediasoup/RtpParameters.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <set>

namespace kestrova::mediasoup {
namespace {

constexpr EnumTexts<MediaKind, 2> kKinds{{"audio", "video"}};
constexpr EnumTexts<Direction, 4> kDirections{{"sendrecv", "sendonly", "recvonly", "inactive"}};

/// More than any router has; a longer list is a mistake or an attack.
constexpr std::size_t kMostEntries = 256;
constexpr std::size_t kLongestText = 255;
/// One-byte header extensions, RFC 8285.
constexpr int kLargestExtensionId = 14;
constexpr std::int64_t kLargestClockRate = 1'000'000;
constexpr std::int64_t kMostChannels = 24;

[[noreturn]] void refuse(const std::string& what) {
  throw MediasoupError(what);
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

const Dictionary& object(const Value& value, const char* what) {
  if (!value.is_object()) refuse(std::string(what) + " is not an object");
  return value.get_object();
}

const List& entries(const Dictionary& owner, const char* key, bool required) {
  static const List none;
  if (const auto* found = list(owner, key)) {
    if (found->size() > kMostEntries) refuse(std::string("too many ") + key);
    return *found;
  }
  if (required || (owner.contains(key) && !owner.at(key).is_null()))
    refuse(std::string(key) + " is missing or not a list");
  return none;
}

std::int64_t number(const Dictionary& owner, const char* key, std::int64_t low, std::int64_t high) {
  const auto found = integer(owner, key);
  if (!found || *found < low || *found > high)
    refuse(std::string(key) + " is missing or out of range");
  return *found;
}

Dictionary fmtpParameters(const Dictionary& codec) {
  Dictionary result;
  const auto* parameters = dictionary(codec, "parameters");
  if (!parameters) return result;
  if (parameters->size() > kMostEntries) refuse("too many codec parameters");
  for (const auto& [key, value] : *parameters) {
    if (!isToken(key)) refuse("a codec parameter has a strange name");
    if (const auto whole = integer(*parameters, key)) {
      result[key] = *whole;
    } else if (value.is_string()) {
      const std::string_view content = value.get_string();
      const bool fits = content.size() <= kLongestText &&
                        std::all_of(content.begin(), content.end(),
                                    [](char c) { return c > ' ' && c < 127 && c != ';'; });
      if (!fits) refuse("codec parameter " + std::string(key) + " has a strange value");
      result[key] = value;
    } else if (!value.is_null()) {
      refuse("codec parameter " + std::string(key) + " is neither a whole number nor a text");
    }
  }
  return result;
}

std::vector<RtcpFeedback> feedback(const Dictionary& codec) {
  std::vector<RtcpFeedback> result;
  for (const auto& value : entries(codec, "rtcpFeedback", false)) {
    const auto& entry = object(value, "an RTCP feedback");
    RtcpFeedback next{text(entry, "type", ""), text(entry, "parameter", "")};
    if (!isToken(next.type) || (!next.parameter.empty() && !isToken(next.parameter)))
      refuse("an RTCP feedback has a strange type or parameter");
    result.push_back(std::move(next));
  }
  return result;
}

bool isPayloadType(std::int64_t type) {
  // RFC 5761: 64 to 95 would be taken for RTCP.
  return (type >= 0 && type < 64) || (type >= 96 && type <= 127);
}

RtpCodec parseCodec(const Value& value, const char* payloadTypeKey, bool payloadTypeRequired) {
  const auto& entry = object(value, "a codec");
  RtpCodec codec;
  codec.mimeType = text(entry, "mimeType", "");
  const auto slash = codec.mimeType.find('/');
  const auto kind = slash == std::string::npos
                        ? std::nullopt
                        : kKinds.parse(std::string_view(codec.mimeType).substr(0, slash));
  if (!kind || codec.mimeType.size() > kLongestText || !isToken(codec.name()))
    refuse("a codec's mimeType is missing or malformed");
  codec.kind = *kind;
  if (payloadTypeRequired || entry.contains(payloadTypeKey)) {
    const auto type = number(entry, payloadTypeKey, 0, 127);
    if (!isPayloadType(type)) refuse(std::string(payloadTypeKey) + " is reserved for RTCP");
    codec.payloadType = static_cast<int>(type);
  }
  codec.clockRate = static_cast<int>(number(entry, "clockRate", 1, kLargestClockRate));
  if (codec.kind == MediaKind::audio && entry.contains("channels"))
    codec.channels = static_cast<int>(number(entry, "channels", 1, kMostChannels));
  codec.parameters = fmtpParameters(entry);
  codec.rtcpFeedback = feedback(entry);
  if (codec.isRtx() && codec.apt() == 0) refuse("an RTX codec has no apt parameter");
  return codec;
}

std::vector<RtpCodec> parseCodecs(const Dictionary& owner, const char* payloadTypeKey) {
  std::vector<RtpCodec> codecs;
  std::set<int> types;
  for (const auto& value : entries(owner, "codecs", true)) {
    codecs.push_back(parseCodec(value, payloadTypeKey, true));
    if (!types.insert(codecs.back().payloadType).second) refuse("two codecs have one payload type");
  }
  return codecs;
}

std::string extensionUri(const Dictionary& entry) {
  auto uri = text(entry, "uri", "");
  if (uri.empty() || !isVisible(uri)) refuse("a header extension's uri is missing or malformed");
  return uri;
}

RtpEncoding parseEncoding(const Value& value) {
  constexpr std::int64_t kLargestSsrc = std::numeric_limits<std::uint32_t>::max();
  const auto& entry = object(value, "an encoding");
  RtpEncoding encoding;
  if (entry.contains("ssrc"))
    encoding.ssrc = static_cast<std::uint32_t>(number(entry, "ssrc", 1, kLargestSsrc));
  if (const auto* rtx = dictionary(entry, "rtx"))
    encoding.rtxSsrc = static_cast<std::uint32_t>(number(*rtx, "ssrc", 1, kLargestSsrc));
  encoding.scalabilityMode = text(entry, "scalabilityMode", "");
  encoding.dtx = boolean(entry, "dtx", false);
  return encoding;
}

List codecList(const std::vector<RtpCodec>& codecs, bool asCapability) {
  List result;
  for (const auto& codec : codecs) {
    Dictionary entry;
    if (asCapability) entry["kind"] = kindText(codec.kind);
    entry["mimeType"] = codec.mimeType;
    entry[asCapability ? "preferredPayloadType" : "payloadType"] = codec.payloadType;
    entry["clockRate"] = codec.clockRate;
    if (codec.kind == MediaKind::audio) entry["channels"] = codec.channels;
    entry["parameters"] = codec.parameters;
    List rtcpFeedback;
    for (const auto& item : codec.rtcpFeedback)
      rtcpFeedback.push_back(Dictionary{{"type", item.type}, {"parameter", item.parameter}});
    entry["rtcpFeedback"] = std::move(rtcpFeedback);
    result.push_back(std::move(entry));
  }
  return result;
}

List encodingList(const std::vector<RtpEncoding>& encodings) {
  List result;
  for (const auto& encoding : encodings) {
    Dictionary entry;
    if (encoding.ssrc) entry["ssrc"] = *encoding.ssrc;
    if (encoding.rtxSsrc) entry["rtx"] = Dictionary{{"ssrc", *encoding.rtxSsrc}};
    if (!encoding.rid.empty()) entry["rid"] = encoding.rid;
    if (!encoding.scalabilityMode.empty()) entry["scalabilityMode"] = encoding.scalabilityMode;
    if (encoding.maxBitrate) entry["maxBitrate"] = *encoding.maxBitrate;
    if (encoding.scaleResolutionDownBy)
      entry["scaleResolutionDownBy"] = *encoding.scaleResolutionDownBy;
    entry["dtx"] = encoding.dtx;
    result.push_back(std::move(entry));
  }
  return result;
}

Value parsed(std::string_view json, const char* what) {
  auto value = parseJson(json);
  if (!value) refuse(std::string(what) + ": not JSON");
  return std::move(*value);
}

}  // namespace

std::string_view RtpCodec::name() const {
  const auto slash = mimeType.find('/');
  return slash == std::string::npos ? std::string_view()
                                    : std::string_view(mimeType).substr(slash + 1);
}

bool RtpCodec::isRtx() const {
  return sameText(name(), "rtx");
}

int RtpCodec::apt() const {
  const auto type = parameterNumber(parameters, "apt").value_or(0);
  return type > 0 && type <= 127 ? static_cast<int>(type) : 0;
}

std::string_view kindText(MediaKind kind) {
  return kKinds(kind);
}

bool sameText(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower(x) == lower(y); });
}

RtpCapabilities parseRtpCapabilities(std::string_view json) {
  const auto root = parsed(json, "RTP capabilities");
  const auto& owner = object(root, "RTP capabilities");
  RtpCapabilities result;
  result.codecs = parseCodecs(owner, "preferredPayloadType");
  for (const auto& value : entries(owner, "headerExtensions", false)) {
    const auto& entry = object(value, "a header extension");
    RtpHeaderExtension extension;
    const auto kind = kKinds.parse(text(entry, "kind", ""));
    const auto direction = kDirections.parse(text(entry, "direction", "sendrecv"));
    if (!kind || !direction) refuse("a header extension has no known kind or direction");
    extension.kind = *kind;
    extension.direction = *direction;
    extension.uri = extensionUri(entry);
    extension.id = static_cast<int>(number(entry, "preferredId", 1, kLargestExtensionId));
    extension.encrypt = boolean(entry, "preferredEncrypt", false);
    result.headerExtensions.push_back(std::move(extension));
  }
  return result;
}

RtpParameters parseRtpParameters(std::string_view json, MediaKind kind) {
  const auto root = parsed(json, "RTP parameters");
  const auto& owner = object(root, "RTP parameters");
  RtpParameters result;
  result.mid = text(owner, "mid", "");
  // RFC 8843: it travels in a one-byte header extension.
  if (result.mid.size() > 16 || (!result.mid.empty() && !isToken(result.mid)))
    refuse("mid is malformed");
  result.codecs = parseCodecs(owner, "payloadType");
  if (result.codecs.empty() || result.codecs.front().isRtx()) refuse("there is no media codec");
  for (const auto& codec : result.codecs)
    if (codec.kind != kind) refuse("a codec is of another kind than the track");
  std::set<int> ids;
  for (const auto& value : entries(owner, "headerExtensions", false)) {
    const auto& entry = object(value, "a header extension");
    RtpHeaderExtension extension{kind, extensionUri(entry), 0, boolean(entry, "encrypt", false),
                                 Direction::sendrecv};
    extension.id = static_cast<int>(number(entry, "id", 1, kLargestExtensionId));
    if (!ids.insert(extension.id).second) refuse("two header extensions have one id");
    result.headerExtensions.push_back(std::move(extension));
  }
  for (const auto& value : entries(owner, "encodings", true))
    result.encodings.push_back(parseEncoding(value));
  if (const auto* rtcp = dictionary(owner, "rtcp")) result.cname = text(*rtcp, "cname", "");
  if (!result.cname.empty() && !isVisible(result.cname)) refuse("cname is malformed");
  return result;
}

RtpCodec parseCodecCapability(std::string_view json) {
  return parseCodec(parsed(json, "codec"), "preferredPayloadType", false);
}

std::string toJson(const RtpCapabilities& capabilities) {
  List extensions;
  for (const auto& extension : capabilities.headerExtensions)
    extensions.push_back(Dictionary{{"kind", kindText(extension.kind)},
                                    {"uri", extension.uri},
                                    {"preferredId", extension.id},
                                    {"preferredEncrypt", extension.encrypt},
                                    {"direction", kDirections(extension.direction)}});
  Dictionary result{{"codecs", codecList(capabilities.codecs, true)},
                    {"headerExtensions", std::move(extensions)}};
  return boost::json::serialize(result);
}

std::string toJson(const RtpParameters& parameters) {
  List extensions;
  for (const auto& extension : parameters.headerExtensions)
    extensions.push_back(Dictionary{{"uri", extension.uri},
                                    {"id", extension.id},
                                    {"encrypt", extension.encrypt},
                                    {"parameters", Dictionary()}});
  Dictionary result{{"mid", parameters.mid},
                    {"codecs", codecList(parameters.codecs, false)},
                    {"headerExtensions", std::move(extensions)},
                    {"encodings", encodingList(parameters.encodings)},
                    {"rtcp", Dictionary{{"cname", parameters.cname}, {"reducedSize", true}}}};
  return boost::json::serialize(result);
}

std::optional<std::int64_t> parameterNumber(const Dictionary& parameters, std::string_view key) {
  if (const auto whole = integer(parameters, key)) return whole;
  const auto written = text(parameters, key);
  if (!written) return std::nullopt;
  std::int64_t value = 0;
  const auto* end = written->data() + written->size();
  const auto read = std::from_chars(written->data(), end, value);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return value;
}

std::string parameterText(const Dictionary& parameters, std::string_view key,
                          std::string_view fallback) {
  if (const auto whole = integer(parameters, key)) return std::to_string(*whole);
  return text(parameters, key, fallback);
}

bool isToken(std::string_view text) {
  return !text.empty() && text.size() <= kLongestText &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return (lower(c) >= 'a' && lower(c) <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
                  c == '_' || c == '-' || c == '+';
         });
}

bool isVisible(std::string_view text) {
  return text.size() <= kLongestText &&
         std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 127; });
}

}  // namespace kestrova::mediasoup
