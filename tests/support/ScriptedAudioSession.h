#pragma once

#include <kestrova/platform/AudioSession.h>
#include <kestrova/platform/CallObserver.h>

#include "Journal.h"
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::test {

/// A session with the inputs that it is given, which fails where it is told to.
class ScriptedAudioSession final : public AVAudioSession {
public:
  explicit ScriptedAudioSession(Journal& journal) : _journal(journal) {}

  std::string currentCategory{AVAudioSessionCategorySoloAmbient};
  std::string currentMode = "mode before";
  AVAudioSessionCategoryOptions currentOptions = 7;
  AVAudioSessionRouteSharingPolicy currentPolicy = AVAudioSessionRouteSharingPolicy::longFormAudio;
  std::vector<AVAudioSessionPortDescription> inputs;
  AVAudioSessionPortOverride output = AVAudioSessionPortOverride::none;
  std::optional<AVAudioSessionPortDescription> preferred;
  bool isActive = false;
  /// Which operation fails, by the first word of its line in the journal.
  std::string fails;
  /// As `fails`, from the second time on.
  std::string failsLater;
  std::weak_ptr<void> watch;

  /// Posts a change of the route.
  static void changeRoute(std::int64_t reason);

  std::string category() const override { return currentCategory; }
  std::string mode() const override { return currentMode; }
  AVAudioSessionCategoryOptions categoryOptions() const override { return currentOptions; }
  AVAudioSessionRouteSharingPolicy routeSharingPolicy() const override { return currentPolicy; }
  std::vector<AVAudioSessionPortDescription> availableInputs() override;
  using AVAudioSession::setCategory;
  void setCategory(std::string_view category, std::string_view mode,
                   AVAudioSessionRouteSharingPolicy routeSharingPolicy,
                   AVAudioSessionCategoryOptions options) override;
  void setActive(bool active, AVAudioSessionSetActiveOptions options) override;
  void overrideOutputAudioPort(AVAudioSessionPortOverride port) override;
  void setPreferredInput(const std::optional<AVAudioSessionPortDescription>& input) override;
  std::shared_ptr<void> watchRoute() override;

private:
  void note(const std::string& operation, const std::string& how);

  Journal& _journal;
};

/// Tells of the calls that the test makes.
class ScriptedCallObserver final : public CXCallObserver {
public:
  explicit ScriptedCallObserver(Journal& journal) : _journal(journal) {}
  void setDelegate(std::weak_ptr<CXCallObserverDelegate> delegate,
                   std::shared_ptr<Queue> queue) override;
  void change(const CXCall& call) const;

private:
  Journal& _journal;
  std::weak_ptr<CXCallObserverDelegate> _delegate;
};

}  // namespace kestrova::test
