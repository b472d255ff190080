#pragma once

#include <kestrova/platform/EnumTexts.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace kestrova {

// What the sound of this process is for.
inline constexpr std::string_view AVAudioSessionCategoryAmbient = "AVAudioSessionCategoryAmbient";
inline constexpr std::string_view AVAudioSessionCategorySoloAmbient =
    "AVAudioSessionCategorySoloAmbient";
inline constexpr std::string_view AVAudioSessionCategoryPlayback = "AVAudioSessionCategoryPlayback";
inline constexpr std::string_view AVAudioSessionCategoryRecord = "AVAudioSessionCategoryRecord";
inline constexpr std::string_view AVAudioSessionCategoryPlayAndRecord =
    "AVAudioSessionCategoryPlayAndRecord";
inline constexpr std::string_view AVAudioSessionModeDefault = "AVAudioSessionModeDefault";

// What a port is. The last three are what desktops have besides.
inline constexpr std::string_view AVAudioSessionPortHeadphones = "Headphones";
inline constexpr std::string_view AVAudioSessionPortHeadsetMic = "HeadsetMic";
inline constexpr std::string_view AVAudioSessionPortBluetoothLE = "BluetoothLE";
inline constexpr std::string_view AVAudioSessionPortBluetoothHFP = "BluetoothHFP";
inline constexpr std::string_view AVAudioSessionPortBluetoothA2DP = "BluetoothA2DP";
inline constexpr std::string_view AVAudioSessionPortBuiltInReceiver = "BuiltInReceiver";
inline constexpr std::string_view AVAudioSessionPortBuiltInMic = "BuiltInMic";
inline constexpr std::string_view AVAudioSessionPortUSBAudio = "USBAudio";
inline constexpr std::string_view AVAudioSessionPortLineIn = "LineIn";
inline constexpr std::string_view AVAudioSessionPortVirtual = "Virtual";

/// A sum of bits.
using AVAudioSessionCategoryOptions = std::uint32_t;
inline constexpr AVAudioSessionCategoryOptions audioMixWithOthers = 1;
inline constexpr AVAudioSessionCategoryOptions audioDuckOthers = 2;
inline constexpr AVAudioSessionCategoryOptions audioAllowBluetooth = 4;
inline constexpr AVAudioSessionCategoryOptions audioDefaultToSpeaker = 8;
inline constexpr AVAudioSessionCategoryOptions audioAllowBluetoothA2DP = 32;
inline constexpr AVAudioSessionCategoryOptions audioAllowAirPlay = 64;

enum class AVAudioSessionRouteSharingPolicy { standard, longFormAudio };
enum class AVAudioSessionPortOverride { none, speaker };
inline constexpr EnumTexts<AVAudioSessionPortOverride, 2> portOverrideTexts{{"none", "speaker"}};
constexpr std::string_view text(AVAudioSessionPortOverride port) {
  return portOverrideTexts(port);
}

using AVAudioSessionSetActiveOptions = std::uint32_t;
inline constexpr AVAudioSessionSetActiveOptions audioNotifyOthersOnDeactivation = 1;

/// Posted on the default notification centre, on any thread, while somebody watches the route.
inline constexpr const char* AVAudioSessionRouteChangeNotification =
    "AVAudioSessionRouteChangeNotification";
/// Its reason, a number of `AVAudioSessionRouteChangeReason`.
inline constexpr const char* AVAudioSessionRouteChangeReasonKey =
    "AVAudioSessionRouteChangeReasonKey";
enum class AVAudioSessionRouteChangeReason : std::uint64_t {
  newDeviceAvailable = 1,
  oldDeviceUnavailable = 2,      ///< one that was played on or recorded from
  routeConfigurationChange = 8,  ///< also when the devices are known for the first time
};

/// One input of the machine.
struct AVAudioSessionPortDescription {
  std::string portName;  ///< for people; no two have the same
  std::string portType;  ///< one of the texts above
  std::string uid;       ///< stable over restarts of the process

  bool operator==(const AVAudioSessionPortDescription&) const = default;
};

/// What an operation of the session that fails throws.
struct AudioSessionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The sound of the process as a whole: what it is for, what it comes from and goes to. One object,
/// shared by all meetings. Thread-safe.
class AVAudioSession {
public:
  virtual ~AVAudioSession() = default;
  virtual std::string category() const = 0;
  virtual std::string mode() const = 0;
  virtual AVAudioSessionCategoryOptions categoryOptions() const = 0;
  virtual AVAudioSessionRouteSharingPolicy routeSharingPolicy() const = 0;
  /// The microphones; none where there is no sound server. While somebody watches the route this is
  /// at hand, else it waits for the server's answer, half a second at most.
  virtual std::vector<AVAudioSessionPortDescription> availableInputs() = 0;

  // \throws AudioSessionError, all of those that follow
  virtual void setCategory(std::string_view category, std::string_view mode,
                           AVAudioSessionRouteSharingPolicy routeSharingPolicy,
                           AVAudioSessionCategoryOptions options) = 0;
  /// The same with the standard policy.
  void setCategory(std::string_view category, std::string_view mode,
                   AVAudioSessionCategoryOptions options = 0) {
    setCategory(category, mode, AVAudioSessionRouteSharingPolicy::standard, options);
  }
  virtual void setActive(bool active, AVAudioSessionSetActiveOptions options = 0) = 0;
  /// Plays on the machine's own speaker whatever else is plugged in, or on what the user has
  /// chosen.
  virtual void overrideOutputAudioPort(AVAudioSessionPortOverride port) = 0;
  /// Records from that input from now on, also where recording goes on already. Nothing is the
  /// choice of the system: the built-in one while the speaker is overridden, else the user's.
  virtual void setPreferredInput(const std::optional<AVAudioSessionPortDescription>& input) = 0;
  /// Route changes are posted as long as any of these is held.
  [[nodiscard]] virtual std::shared_ptr<void> watchRoute() = 0;
};

struct RTCAudioSessionConfiguration {
  std::string category{AVAudioSessionCategoryPlayAndRecord};
  std::string mode{AVAudioSessionModeDefault};
  AVAudioSessionCategoryOptions categoryOptions = audioAllowBluetooth;

  /// What the media engine would choose by itself.
  static RTCAudioSessionConfiguration webRTCConfiguration() { return {}; }
};

/// The same session for those who change several things in one go.
class RTCAudioSession {
public:
  explicit RTCAudioSession(std::shared_ptr<AVAudioSession> session)
      : _session(std::move(session)) {}

  /// The calling thread has the session for itself, among those who ask here, until it unlocks as
  /// often as it has locked.
  void lockForConfiguration();
  void unlockForConfiguration();
  // \throws AudioSessionError, also on a thread that hasn't locked
  void setConfiguration(const RTCAudioSessionConfiguration& configuration);
  void setActive(bool active);

private:
  void requireLock() const;

  const std::shared_ptr<AVAudioSession> _session;
  std::recursive_mutex _configuration;
  mutable std::mutex _lock;
  std::thread::id _owner;  // under _lock
  int _depth = 0;          // under _lock
};

}  // namespace kestrova
