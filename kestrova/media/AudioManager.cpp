#include <kestrova/media/AudioManager.h>
#include <kestrova/platform/Await.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/join.hpp>

#include <algorithm>
#include <array>
#include <utility>

namespace kestrova {
namespace {

using Port = AVAudioSessionPortDescription;

constexpr std::array inputCapableCategories{AVAudioSessionCategoryPlayAndRecord,
                                            AVAudioSessionCategoryRecord};
/// Nothing that a meeting would miss plays through these: they may be left for a moment.
constexpr std::array idleCategories{AVAudioSessionCategorySoloAmbient,
                                    AVAudioSessionCategoryAmbient};
constexpr std::array bluetoothPorts{AVAudioSessionPortBluetoothLE, AVAudioSessionPortBluetoothHFP,
                                    AVAudioSessionPortBluetoothA2DP};
constexpr std::array builtInPorts{AVAudioSessionPortBuiltInReceiver, AVAudioSessionPortBuiltInMic};
constexpr std::array wiredPorts{AVAudioSessionPortHeadphones, AVAudioSessionPortHeadsetMic};

constexpr AVAudioSessionCategoryOptions meetingOptions =
    audioMixWithOthers | audioDuckOthers | audioAllowBluetooth | audioDefaultToSpeaker |
    audioAllowBluetoothA2DP | audioAllowAirPlay;

template <std::size_t size>
bool isOneOf(const std::array<std::string_view, size>& texts, std::string_view text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

AudioDevice shown(const Port& input) {
  if (isOneOf(builtInPorts, input.portType)) return {"Speaker", "speaker"};
  const bool isBare = boost::algorithm::to_lower_copy(input.portName) == "microphone";
  if (input.portType == AVAudioSessionPortHeadphones ||
      (isBare && isOneOf(wiredPorts, input.portType)))
    return {"Headphones", "wired"};
  return {input.portName, input.portType};
}

/// The session configured by one alone, for as long as it lives.
class Configuring {
public:
  explicit Configuring(RTCAudioSession& session) : _session(session) {
    _session.lockForConfiguration();
  }
  ~Configuring() { _session.unlockForConfiguration(); }
  Configuring(const Configuring&) = delete;
  Configuring& operator=(const Configuring&) = delete;

private:
  RTCAudioSession& _session;
};

/// Runs `step`; what it throws becomes a line in the trace.
template <class Step>
bool attemptAudio(const char* failure, Step&& step, ParentSpan parent = {}) {
  try {
    step();
    return true;
  } catch (const std::exception& error) {
    traceError(failure, {{"error", std::string_view(error.what())}}, parent);
    return false;
  }
}

}  // namespace

std::shared_ptr<AudioManager> AudioManager::make(bool configureSession) {
  std::shared_ptr<AudioManager> manager(new AudioManager(Platform::current()));
  if (configureSession) {
    manager->configureAudioSession();
    manager->addAudioChangeObserver();
  }
  return manager;
}

AudioManager::AudioManager(std::shared_ptr<const Platform> platform)
    : _platform(std::move(platform)),
      _audioSession(_platform->rtcAudioSession ? _platform->audioSession : nullptr),
      _rtcAudioSession(_audioSession ? _platform->rtcAudioSession : nullptr) {}

// ---- The session -------------------------------------------------------------------------------

void AudioManager::configureAudioSession() {
  if (!_audioSession) return;
  {
    std::scoped_lock held(_prevLock);
    _prevAudioCategory = _audioSession->category();
    _prevAudioMode = _audioSession->mode();
    _prevAudioOptions = _audioSession->categoryOptions();
    _prevRouteSharingPolicy = _audioSession->routeSharingPolicy();
  }
  auto configuration = RTCAudioSessionConfiguration::webRTCConfiguration();
  configuration.category = AVAudioSessionCategoryPlayAndRecord;
  configuration.mode = AVAudioSessionModeDefault;
  configuration.categoryOptions = meetingOptions;
  attemptAudio("Audio session configuration failed", [&] {
    Configuring configuring(*_rtcAudioSession);
    _rtcAudioSession->setConfiguration(configuration);
    _rtcAudioSession->setActive(true);
  });
}

void AudioManager::stopAudioSession() {
  if (!_audioSession) return;
  attemptAudio("Failed to stop audio session.", [this] {
    std::unique_lock held(_prevLock);
    const auto category = std::exchange(_prevAudioCategory, std::nullopt);
    const auto mode = std::exchange(_prevAudioMode, std::nullopt);
    const auto options = std::exchange(_prevAudioOptions, std::nullopt);
    const auto policy = std::exchange(_prevRouteSharingPolicy, std::nullopt);
    held.unlock();
    if (!category || !mode || !options || !policy) return;
    _audioSession->setCategory(*category, *mode, *policy, *options);
    // It goes back to its old category; whether it rests is for whoever had it before.
    _audioSession->setActive(true, audioNotifyOthersOnDeactivation);
  });
  removeAudioChangeObserver();
}

bool AudioManager::isInputCapable() const {
  return isOneOf(inputCapableCategories, _audioSession->category());
}

// ---- The microphones ---------------------------------------------------------------------------

void AudioManager::withInputCapableSession(const std::function<void(const Inputs&)>& body) {
  const auto category = _audioSession->category();
  if (isOneOf(inputCapableCategories, category)) return body(_audioSession->availableInputs());
  if (!isOneOf(idleCategories, category)) {
    traceError(
        "Skipping microphone enumeration: the app's audio session category does not support input, "
        "and reconfiguring it would disturb playback. Configure a record-capable category before "
        "listing devices.",
        {{"category", category}});
    trace("Microphone list fetch failed!");
    return body({});
  }
  const auto mode = _audioSession->mode();
  const auto options = _audioSession->categoryOptions();
  const auto policy = _audioSession->routeSharingPolicy();
  const bool isCapable =
      attemptAudio("Could not make the audio session input-capable for device listing.", [this] {
        _audioSession->setCategory(AVAudioSessionCategoryPlayAndRecord, AVAudioSessionModeDefault);
      });
  if (!isCapable) return body({});
  body(_audioSession->availableInputs());
  attemptAudio("Failed to restore the app's audio session category after device listing.",
               [&] { _audioSession->setCategory(category, mode, policy, options); });
}

std::vector<AudioDevice> AudioManager::getMics() {
  ScopedSpan requested("Microphone List Requested");
  ScopedSpan fetching("Fetching Microphone List", {}, requested.scope());
  std::vector<AudioDevice> mics;
  const auto list = [&](const Inputs& inputs) {
    for (const auto& input : inputs) mics.push_back(shown(input));
  };
  if (_audioSession) withInputCapableSession(list);
  std::stable_partition(mics.begin(), mics.end(),
                        [](const AudioDevice& mic) { return mic.deviceType == "speaker"; });
  if (mics.empty()) {
    fetching.fail("Error while fetching microphone list, no input devices found!");
    return mics;
  }
  const auto micList = [&] {
    std::vector<std::string> names;
    for (const auto& mic : mics) names.push_back(mic.deviceName);
    return "[ " + boost::algorithm::join(names, ", ") + " ]";
  };
  fetching.event("Microphone List fetched successfully", {{"micList", micList}});
  return mics;
}

struct AudioManager::Change {
  AVAudioSessionPortOverride output;
  std::optional<Port> input;
  const char* failure;
};

std::optional<AudioManager::Change> AudioManager::choose(const std::string& selectedDevice) {
  const auto inputs = _audioSession->availableInputs();
  const auto find = [&](auto matches) -> std::optional<Port> {
    const auto found = std::find_if(inputs.begin(), inputs.end(), matches);
    return found == inputs.end() ? std::nullopt : std::optional(*found);
  };
  auto named = find([&](const Port& input) { return input.portName == selectedDevice; });
  if (!named) named = find([&](const Port& input) { return input.uid == selectedDevice; });
  const auto text = boost::algorithm::to_lower_copy(selectedDevice);
  if (text.find("headphones") != std::string::npos) {
    const auto isWired = [](const Port& input) { return isOneOf(wiredPorts, input.portType); };
    auto wired = named && isWired(*named) ? named : find(isWired);
    // A wireless one that bears the word, where no wire is plugged in.
    return Change{AVAudioSessionPortOverride::none, wired ? wired : named,
                  "Error changing to headphones."};
  }
  if (text.find("speaker") != std::string::npos)
    return Change{AVAudioSessionPortOverride::speaker, std::nullopt, "Error changing to speaker."};
  if (!named) return std::nullopt;
  const char* failure = "Error changing to the device.";  // a kind that only desktops have
  if (isOneOf(bluetoothPorts, named->portType)) failure = "Error changing to bluetooth device.";
  if (isOneOf(builtInPorts, named->portType)) failure = "Error changing to built-in device.";
  if (isOneOf(wiredPorts, named->portType)) failure = "Error changing to headphones.";
  return Change{AVAudioSessionPortOverride::none, std::move(named), failure};
}

bool AudioManager::carryOut(const Change& change, const std::string& selectedDevice,
                            const std::optional<SpanScope>& parentSpan) {
  try {
    if (change.output == AVAudioSessionPortOverride::none && !change.input)
      throw AudioSessionError("there is no such input");
    _audioSession->overrideOutputAudioPort(change.output);
    _audioSession->setPreferredInput(change.input);
  } catch (const std::exception& error) {
    traceError("Device was not changed", {{"selectedDevice", selectedDevice}}, parentSpan);
    traceError(change.failure, {{"error", std::string_view(error.what())}}, parentSpan);
    return false;
  }
  trace("Emitting MIC_CHANGED Event", {{"selectedDevice", selectedDevice}}, parentSpan);
  return true;
}

Task<std::optional<std::string>> AudioManager::changeMic(std::string selectedDevice,
                                                         std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  std::optional<Change> change;
  if (_audioSession) {
    if (!isInputCapable()) {
      configureAudioSession();
      addAudioChangeObserver();
    }
    change = choose(selectedDevice);
  }
  if (!change) {
    traceError("Device was not changed",
               {{"selectedDevice", selectedDevice}, {"error", "there is no such device"}},
               parentSpan);
    co_return std::nullopt;
  }
  auto onMainQueue = [&](Completion<bool> done) {
    MainQueue::shared().async([self, change = *change, selectedDevice, parentSpan, done] {
      done(self->carryOut(change, selectedDevice, parentSpan));
    });
  };
  const bool isChanged = co_await awaitCallback<bool>(std::move(onMainQueue));
  co_return isChanged ? std::optional(selectedDevice) : std::nullopt;
}

// ---- Route changes -----------------------------------------------------------------------------

void AudioManager::addAudioChangeObserver() {
  if (!_audioSession) return;
  auto handler = [weak = weak_from_this()](const Dictionary& userInfo) {
    using Reason = AVAudioSessionRouteChangeReason;
    const auto reason =
        static_cast<Reason>(integer(userInfo, AVAudioSessionRouteChangeReasonKey, 0));
    if (reason != Reason::newDeviceAvailable && reason != Reason::oldDeviceUnavailable) return;
    MainQueue::shared().async([weak, reason] {
      if (const auto self = weak.lock()) self->routeChanged(reason);
    });
  };
  std::optional<RouteChangeObserver> observer;  // an earlier one goes outside the lock
  observer.emplace(NotificationCenter::defaultCenter().addObserver(
                       AVAudioSessionRouteChangeNotification, std::move(handler)),
                   _audioSession->watchRoute());
  std::scoped_lock held(_observerLock);
  _routeChangeObserver.swap(observer);
}

void AudioManager::removeAudioChangeObserver() {
  std::optional<RouteChangeObserver> observer;
  std::scoped_lock held(_observerLock);
  _routeChangeObserver.swap(observer);
}

void AudioManager::routeChanged(AVAudioSessionRouteChangeReason reason) {
  // What is plugged in takes over. When what was in use is pulled, people go on by the speaker.
  const bool isNew = reason == AVAudioSessionRouteChangeReason::newDeviceAvailable;
  attemptAudio(isNew ? "Error adding new device!" : "Error setting back to old device!", [&] {
    _audioSession->overrideOutputAudioPort(isNew ? AVAudioSessionPortOverride::none
                                                 : AVAudioSessionPortOverride::speaker);
    _audioSession->setActive(true, audioNotifyOthersOnDeactivation);
  });
}

}  // namespace kestrova
