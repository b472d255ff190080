#include <kestrova/media/CustomRTCMediaStream.h>

#include <utility>

namespace kestrova {
namespace {

constexpr const char* unset = "default";

Value flag(const std::optional<bool>& value) {
  return value ? Value(*value) : Value(unset);
}

template <class T, class Name>
Value named(const std::optional<T>& value, Name name) {
  return value ? Value(std::string_view(name(*value))) : Value(unset);
}

}  // namespace

std::string NoiseConfig::toJsonString() const {
  const Dictionary json{{"noiseSupression", flag(noiseSupression)},
                        {"echoCancellation", flag(echoCancellation)},
                        {"autoGainControl", flag(autoGainControl)},
                        {"highPassFilter", flag(highPassFilter)}};
  return boost::json::serialize(json);
}

std::map<std::string, std::string> audioConstraints(const std::optional<NoiseConfig>& config) {
  const auto wanted = config.value_or(NoiseConfig());
  const auto word = [](const std::optional<bool>& value) {
    return value.value_or(false) ? "true" : "false";
  };
  return {{"googNoiseSupression", word(wanted.noiseSupression)},
          {"googEchoCancellation", word(wanted.echoCancellation)},
          {"googAutoGainControl", word(wanted.autoGainControl)},
          {"googHighpassFilter", word(wanted.highPassFilter)}};
}

// ---- CustomRTCMediaStream ----------------------------------------------------------------------

CustomStreamFields CustomRTCMediaStream::fields() const {
  std::scoped_lock held(_lock);
  return _fields;
}

void CustomRTCMediaStream::setVideoCodec(VideoCodec codec) {
  std::scoped_lock held(_lock);
  _fields.videoCodec = codec;
}

void CustomRTCMediaStream::setMultiStream(bool multiStream) {
  std::scoped_lock held(_lock);
  _fields.multiStream = multiStream;
}

void CustomRTCMediaStream::disposeTracks() {
  CustomStreamFields gone;
  {
    std::scoped_lock held(_lock);
    gone.videoTrack.swap(_fields.videoTrack);
    gone.audioTrack.swap(_fields.audioTrack);
    gone.capture.swap(_fields.capture);
    gone.capturer.swap(_fields.capturer);
  }
  if (gone.videoTrack) gone.videoTrack->setEnabled(false);
  if (gone.audioTrack) gone.audioTrack->setEnabled(false);
}

Dictionary CustomRTCMediaStream::toJson() const {
  const auto now = fields();
  return {
      {"videoTrack", now.videoTrack ? Value(now.videoTrack->id()) : Value(unset)},
      {"multiStream", flag(now.multiStream)},
      {"codec", named(now.videoCodec, [](auto codec) { return text(codec); })},
      {"bitrateMode", named(now.bitrateMode, [](auto mode) { return text(mode); })},
      {"audioEncoderConfig", named(now.audioEncoderConfig, [](auto row) { return text(row); })},
      {"maxLayer", named(now.maxLayer, [](auto layer) { return text(layer); })},
      {"encoderConfig", named(now.encoderConfig, [](auto row) { return text(row); })},
      {"facingMode", now.facingMode == CameraPosition::back ? "Back" : "Front"},
  };
}

std::string CustomRTCMediaStream::toJsonString(bool forAudio) const {
  if (!forAudio) return boost::json::serialize(toJson());
  const auto now = fields();
  const Dictionary json{
      {"audioTrackId", now.audioTrack ? Value(now.audioTrack->id()) : Value(unset)},
      {"echoCancellation",
       now.noiseConfig ? flag(now.noiseConfig->echoCancellation) : Value(unset)},
      {"noiseConfig",
       now.noiseConfig ? Value(now.noiseConfig->toJsonString()) : Value("Not provided")}};
  return boost::json::serialize(json);
}

// ---- MediaConfigStore --------------------------------------------------------------------------

VideoConfigSnapshot makeVideoConfig(const std::shared_ptr<CustomRTCMediaStream>& stream,
                                    std::optional<bool> meetingMultiStream) {
  VideoConfigSnapshot config;
  if (!stream) {
    config.multiStream = meetingMultiStream.value_or(true);
    return config;
  }
  const auto fields = stream->fields();
  config.encoderConfig = fields.encoderConfig.value_or(config.encoderConfig);
  config.facingMode = fields.facingMode.value_or(config.facingMode);
  config.multiStream = fields.multiStream.value_or(true);
  config.videoCodec = fields.videoCodec.value_or(config.videoCodec);
  config.bitrateMode = fields.bitrateMode.value_or(config.bitrateMode);
  config.maxLayer = fields.maxLayer.value_or(config.maxLayer);
  return config;
}

AudioConfigSnapshot makeAudioConfig(const std::shared_ptr<CustomRTCMediaStream>& stream) {
  AudioConfigSnapshot config;
  if (!stream) return config;
  const auto fields = stream->fields();
  config.audioEncoderConfig = fields.audioEncoderConfig.value_or(config.audioEncoderConfig);
  config.noiseConfig = fields.noiseConfig;
  return config;
}

MediaConfigStore::MediaConfigStore(VideoConfigSnapshot video, AudioConfigSnapshot audio)
    : _video(video), _audio(std::move(audio)), _requestedMultiStream(video.multiStream) {}

VideoConfigSnapshot MediaConfigStore::video() const {
  std::scoped_lock held(_lock);
  return _video;
}

AudioConfigSnapshot MediaConfigStore::audio() const {
  std::scoped_lock held(_lock);
  return _audio;
}

void MediaConfigStore::recordVideo(VideoConfigSnapshot video) {
  std::scoped_lock held(_lock);
  _video = video;
  _requestedMultiStream = video.multiStream;
}

bool MediaConfigStore::requestedMultiStream() const {
  std::scoped_lock held(_lock);
  return _requestedMultiStream;
}

void MediaConfigStore::recordFacingMode(CameraPosition position) {
  std::scoped_lock held(_lock);
  _video.facingMode = position;
}

void MediaConfigStore::recordAudio(AudioConfigSnapshot audio) {
  std::scoped_lock held(_lock);
  _audio = std::move(audio);
}

void MediaConfigStore::recordVideoCodec(VideoCodec codec) {
  std::scoped_lock held(_lock);
  _video.videoCodec = codec;
}

void MediaConfigStore::recordMultiStreamDowngrade() {
  std::scoped_lock held(_lock);
  _video.multiStream = false;
}

}  // namespace kestrova
