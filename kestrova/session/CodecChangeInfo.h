#pragma once

#include <kestrova/media/EncodingTypes.h>

#include <memory>
#include <string>

namespace kestrova {

class Participant;

/// Why and how the published camera changed its codec.
struct CodecChangeInfo {
  VideoCodec unsupportedCodec = VideoCodec::VP8;
  VideoCodec currentCodec = VideoCodec::VP8;
  VideoCodec previousCodec = VideoCodec::VP8;
  std::string kind;
  /// The participant who can't decode the codec, if known.
  std::shared_ptr<Participant> causedBy;
};

}  // namespace kestrova
