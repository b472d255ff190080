#pragma once

#include <kestrova/platform/linux/mediasoup/RtpParameters.h>

namespace kestrova::mediasoup {

/// Writes the application's wishes for a codec ("opusStereo", "opusFec", "opusDtx",
/// "opusMaxPlaybackRate", "opusPtime", "videoGoogleStartBitrate", "videoGoogleMaxBitrate",
/// "videoGoogleMinBitrate"; bitrates in kbit/s) into its parameters: `offered` is what the server
/// learns of our sender, `answered` what our sender is told to do. A number that makes no sense
/// counts as not given.
void applyCodecOptions(const Dictionary& options, RtpCodec& offered, RtpCodec& answered);

/// Whether the codec can be sent with that scalability mode, as W3C's webrtc-svc names them.
bool isScalabilityMode(const RtpCodec& codec, std::string_view mode);

}  // namespace kestrova::mediasoup
