#include <kestrova/platform/NotificationCenter.h>
#include <kestrova/platform/linux/audio/DeviceMonitor.h>
#include <kestrova/platform/linux/audio/LinuxAudioSession.h>
#include <kestrova/platform/linux/audio/MicrophoneRoute.h>
#include <kestrova/platform/linux/audio/Speaker.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

namespace kestrova {
namespace {

constexpr std::array knownCategories{AVAudioSessionCategoryAmbient,
                                     AVAudioSessionCategorySoloAmbient,
                                     AVAudioSessionCategoryPlayback, AVAudioSessionCategoryRecord,
                                     AVAudioSessionCategoryPlayAndRecord};

std::string sinkInUse() {
  auto sink = speaker();
  return sink == "default" ? "" : sink;
}

/// The speaker in place of whatever else is plugged in, and with it the built-in microphone, for
/// those who have chosen no other. Steps of one thread at a time.
class Override {
public:
  void begin(const SoundDevices& devices) {
    std::scoped_lock held(_lock);
    apply(devices);
  }
  /// Other devices are there by now.
  void follow(const SoundDevices& devices) {
    std::scoped_lock held(_lock);
    if (isSpeakerOverridden()) apply(devices);
  }
  void end() {
    std::scoped_lock held(_lock);
    endSpeakerOverride();
    MicrophoneRoute::shared().setBuiltIn(std::nullopt);
  }

private:
  void apply(const SoundDevices& devices) {
    overrideSpeaker(speakerOf(devices));
    MicrophoneRoute::shared().setBuiltIn(builtInOf(devices));
  }
  std::mutex _lock;
};

Override& speakerOverride() {
  static auto& instance = *new Override;
  return instance;
}

void devicesChanged(const std::optional<SoundDevices>& before, const SoundDevices& now) {
  std::vector reasons{AVAudioSessionRouteChangeReason::routeConfigurationChange};
  if (before) reasons = routeChanges(*before, now, sinkInUse(), MicrophoneRoute::shared().source());
  speakerOverride().follow(now);
  if (!before || before->sources != now.sources) MicrophoneRoute::shared().sourcesChanged();
  for (const auto reason : reasons)
    NotificationCenter::defaultCenter().post(
        AVAudioSessionRouteChangeNotification,
        {{AVAudioSessionRouteChangeReasonKey, static_cast<std::int64_t>(reason)}});
}

class LinuxAudioSession final : public AVAudioSession {
public:
  std::string category() const override { return read(&State::category); }
  std::string mode() const override { return read(&State::mode); }
  AVAudioSessionCategoryOptions categoryOptions() const override { return read(&State::options); }
  AVAudioSessionRouteSharingPolicy routeSharingPolicy() const override {
    return read(&State::policy);
  }

  std::vector<AVAudioSessionPortDescription> availableInputs() override {
    const auto found = devices();
    return found ? inputsOf(*found) : std::vector<AVAudioSessionPortDescription>();
  }

  void setCategory(std::string_view category, std::string_view mode,
                   AVAudioSessionRouteSharingPolicy routeSharingPolicy,
                   AVAudioSessionCategoryOptions options) override {
    if (std::find(knownCategories.begin(), knownCategories.end(), category) ==
        knownCategories.end())
      throw AudioSessionError("unknown category");
    std::scoped_lock held(_lock);
    _state = {std::string(category), std::string(mode), options, routeSharingPolicy};
  }

  // The server wakes and rests its devices by the streams that there are.
  void setActive(bool, AVAudioSessionSetActiveOptions) override {}

  void overrideOutputAudioPort(AVAudioSessionPortOverride port) override {
    if (port == AVAudioSessionPortOverride::none) return speakerOverride().end();
    speakerOverride().begin(requireDevices());
  }

  void setPreferredInput(const std::optional<AVAudioSessionPortDescription>& input) override {
    auto& microphone = MicrophoneRoute::shared();
    if (!input) return microphone.prefer(std::nullopt);
    if (!microphone.isDevice())
      throw AudioSessionError("the microphone is no device of the sound server");
    const auto found = requireDevices();
    const auto isIt = [&](const SoundDevice& source) { return source.name == input->uid; };
    if (std::none_of(found.sources.begin(), found.sources.end(), isIt))
      throw AudioSessionError("the microphone is gone");
    microphone.prefer(input->uid);
  }

  std::shared_ptr<void> watchRoute() override {
    std::scoped_lock held(_lock);
    if (auto watch = _watch.lock()) return watch;
    auto watch = std::make_shared<RouteWatch>();
    _watch = watch;
    return watch;
  }

private:
  struct State {
    std::string category{AVAudioSessionCategorySoloAmbient};
    std::string mode{AVAudioSessionModeDefault};
    AVAudioSessionCategoryOptions options = 0;
    AVAudioSessionRouteSharingPolicy policy = AVAudioSessionRouteSharingPolicy::standard;
  };

  /// Without anybody to watch, nobody would take an override back.
  struct RouteWatch {
    std::optional<DeviceMonitor> monitor{std::in_place, devicesChanged};
    ~RouteWatch() {
      monitor.reset();
      speakerOverride().end();
    }
  };

  template <class T>
  T read(T State::*field) const {
    std::scoped_lock held(_lock);
    return _state.*field;
  }

  std::optional<SoundDevices> devices() const {
    std::shared_ptr<RouteWatch> watch;
    {
      std::scoped_lock held(_lock);
      watch = _watch.lock();
    }
    auto known = watch ? watch->monitor->devices() : std::nullopt;
    return known ? known : readDevices();
  }

  SoundDevices requireDevices() const {
    auto found = devices();
    if (!found) throw AudioSessionError("there is no sound server");
    return *found;
  }

  mutable std::mutex _lock;
  State _state;                      // under _lock
  std::weak_ptr<RouteWatch> _watch;  // under _lock
};

}  // namespace

std::shared_ptr<AVAudioSession> makeAudioSession() {
  return std::make_shared<LinuxAudioSession>();
}

}  // namespace kestrova
