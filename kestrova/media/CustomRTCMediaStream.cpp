#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/platform/Values.h>

#include <mutex>
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

struct CustomRTCMediaStream::State {
  std::mutex lock;
  CustomStreamFields fields;  // under lock
};

CustomRTCMediaStream::CustomRTCMediaStream(CustomStreamFields fields)
    : _state(new State{.lock = {}, .fields = std::move(fields)}) {}
CustomRTCMediaStream::~CustomRTCMediaStream() = default;

CustomStreamFields CustomRTCMediaStream::fields() const {
  std::scoped_lock held(_state->lock);
  return _state->fields;
}

void CustomRTCMediaStream::setVideoCodec(VideoCodec codec) {
  std::scoped_lock held(_state->lock);
  _state->fields.videoCodec = codec;
}

void CustomRTCMediaStream::setMultiStream(bool multiStream) {
  std::scoped_lock held(_state->lock);
  _state->fields.multiStream = multiStream;
}

void CustomRTCMediaStream::disposeTracks() {
  CustomStreamFields gone;
  {
    std::scoped_lock held(_state->lock);
    gone.videoTrack.swap(_state->fields.videoTrack);
    gone.audioTrack.swap(_state->fields.audioTrack);
    gone.capture.swap(_state->fields.capture);
    gone.capturer.swap(_state->fields.capturer);
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

}  // namespace kestrova
