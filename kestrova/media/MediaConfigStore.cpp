#include <kestrova/media/MediaConfigStore.h>

#include <utility>

namespace kestrova {

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
