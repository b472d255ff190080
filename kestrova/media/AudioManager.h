#pragma once

#include <kestrova/model/AudioDevice.h>
#include <kestrova/platform/AudioSession.h>
#include <kestrova/platform/NotificationCenter.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Task.h>
#include <kestrova/tracing/SpanScope.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// Puts the machine's audio session into the state that a meeting needs and back, lists the
/// microphones, and moves sound between devices. No failure of it stops a meeting: each is a line
/// in the trace. Any thread may call.
class AudioManager : public std::enable_shared_from_this<AudioManager> {
public:
  /// \param configureSession whether the session is made ready for a meeting, and routes are
  /// watched, at once; without it nothing is touched
  static std::shared_ptr<AudioManager> make(bool configureSession);

  void configureAudioSession();
  /// Gives the session back as `configureAudioSession` found it. Once; nothing happens without it.
  void stopAudioSession();

  /// The microphones, what is built in first. May wait for the sound server, half a second at most.
  /// None where the session is in use for something that a look would disturb.
  std::vector<AudioDevice> getMics();
  /// Goes over to a microphone, or to "Speaker": what is built in, loud. Everything but the look
  /// for the device runs on the main queue.
  /// \param selectedDevice one of `getMics`
  /// \returns its text; nothing when there is no such device or it can't be had
  Task<std::optional<std::string>> changeMic(std::string selectedDevice,
                                             std::optional<SpanScope> parentSpan);

private:
  using Inputs = std::vector<AVAudioSessionPortDescription>;
  struct Change;

  explicit AudioManager(std::shared_ptr<const Platform> platform);
  void addAudioChangeObserver();
  void removeAudioChangeObserver();
  void withInputCapableSession(const std::function<void(const Inputs&)>& body);
  bool isInputCapable() const;
  std::optional<Change> choose(const std::string& selectedDevice);
  bool carryOut(const Change& change, const std::string& selectedDevice,
                const std::optional<SpanScope>& parentSpan);
  void routeChanged(AVAudioSessionRouteChangeReason reason);

  const std::shared_ptr<const Platform> _platform;
  const std::shared_ptr<AVAudioSession> _audioSession;  // either both are there or none is
  const std::shared_ptr<RTCAudioSession> _rtcAudioSession;

  std::mutex _prevLock;
  // The state before the meeting; under _prevLock.
  std::optional<std::string> _prevAudioCategory;
  std::optional<std::string> _prevAudioMode;
  std::optional<AVAudioSessionCategoryOptions> _prevAudioOptions;
  std::optional<AVAudioSessionRouteSharingPolicy> _prevRouteSharingPolicy;

  struct RouteChangeObserver {
    std::shared_ptr<NotificationCenter::Observer> token;
    std::shared_ptr<void> watch;
  };
  std::mutex _observerLock;
  std::optional<RouteChangeObserver> _routeChangeObserver;  // under _observerLock
};

}  // namespace kestrova
