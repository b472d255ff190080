#include <kestrova/platform/linux/audio/VoiceProcessing.h>

#include <modules/audio_processing/include/audio_processing.h>

#include <algorithm>
#include <array>
#include <atomic>

namespace kestrova {
namespace {

constexpr int kMostChannels = 2;
/// The canceller takes no longer delays.
constexpr int kLongestDelayMs = 500;

using Constraints = std::map<std::string, std::string>;

bool isAsked(const Constraints& constraints, const std::string& key) {
  const auto found = constraints.find(key);
  return found != constraints.end() && found->second == "true";
}

webrtc::AudioProcessing::Config configOf(const Constraints& constraints) {
  webrtc::AudioProcessing::Config config;
  config.echo_canceller.enabled = isAsked(constraints, "googEchoCancellation");
  config.noise_suppression.enabled = isAsked(constraints, "googNoiseSupression");
  config.noise_suppression.level = webrtc::AudioProcessing::Config::NoiseSuppression::kHigh;
  config.high_pass_filter.enabled = isAsked(constraints, "googHighpassFilter");
  // The volume of the source is the user's: gain is digital.
  auto& gain = config.gain_controller1;
  gain.enabled = isAsked(constraints, "googAutoGainControl");
  gain.mode = webrtc::AudioProcessing::Config::GainController1::kAdaptiveDigital;
  gain.analog_gain_controller.enabled = false;
  return config;
}

/// The engine's processing takes the two directions from two threads.
class EngineProcessing final : public VoiceProcessing, public FarEndListener {
public:
  explicit EngineProcessing(rtc::scoped_refptr<webrtc::AudioProcessing> engine)
      : _engine(std::move(engine)) {}

  void process(PulseRecording::Block& block, std::chrono::milliseconds delay) override {
    const webrtc::StreamConfig mono(PulseRecording::kSampleRate, 1);
    const auto total = _playoutDelayMs.load() + static_cast<int>(delay.count());
    _engine->set_stream_delay_ms(std::clamp(total, 0, kLongestDelayMs));
    _engine->ProcessStream(block.data(), mono, mono, block.data());
  }

  void onFarEnd(const AudioData& data, std::chrono::milliseconds delay) override {
    if (data.frames != PulseRecording::kFrames || data.channels > kMostChannels) return;
    _playoutDelayMs = static_cast<int>(delay.count());
    const webrtc::StreamConfig format(data.sampleRate, static_cast<std::size_t>(data.channels));
    std::array<std::int16_t, PulseRecording::kFrames * kMostChannels> unused;
    _engine->ProcessReverseStream(data.samples, format, format, unused.data());
  }

private:
  rtc::scoped_refptr<webrtc::AudioProcessing> _engine;
  std::atomic<int> _playoutDelayMs{0};
};

}  // namespace

std::shared_ptr<VoiceProcessing> makeVoiceProcessing(const Constraints& constraints) {
  const auto config = configOf(constraints);
  if (!config.echo_canceller.enabled && !config.noise_suppression.enabled &&
      !config.gain_controller1.enabled && !config.high_pass_filter.enabled)
    return nullptr;
  auto engine = webrtc::AudioProcessingBuilder().SetConfig(config).Create();
  if (!engine) return nullptr;
  auto processing = std::make_shared<EngineProcessing>(std::move(engine));
  if (config.echo_canceller.enabled) PlayoutReference::shared().add(processing);
  return processing;
}

}  // namespace kestrova
