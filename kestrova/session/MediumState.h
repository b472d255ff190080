#pragma once

#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// What is wished of one local medium, and how far it has come. Thread-safe; a leaf lock.
///
/// The wish is a field of its own: it counts from the moment it is spoken, while `isOn` follows
/// when the switch is done, and is what a toggle is judged by.
class MediumState {
public:
  explicit MediumState(bool wished) : _wished(wished), _on(wished) {}

  /// How a toggle is refused.
  struct Refusals {
    const char* alreadyThere;
    const char* busy;
  };
  /// The application asks for a switch to `on`. Nothing when it may: then the toggle is taken until
  /// `release`. Else the text of the refusal. The wish is recorded in either case, since what the
  /// library does of itself must heed it; only a toggle of the application's own that is under way
  /// leaves all as it was.
  std::optional<std::string> ask(bool on, const Refusals& refusals);
  void release();

  bool wished() const;
  bool isOn() const;
  /// Whether a toggle of the application's is under way.
  bool isApplicationToggling() const;

  /// It is published. \returns whether that is still wished
  bool started();
  /// It is off, whatever is wished.
  void stopped();
  /// It is off, and stays off until somebody asks for it.
  void ended();

  /// The library takes the toggle for work of its own; to be given back by `giveBack`.
  /// \returns false when somebody has it
  bool take();
  /// As `take`, and only while the medium is on.
  bool takeWhileOn();
  void giveBack();

private:
  mutable std::mutex _mediaStateLock;
  bool _wished;
  bool _on;
  bool _isToggling = false;
  bool _isApplications = false;  // who has the toggle
};

/// Gives back what the library took, in whatever way its work ends.
class ToggleLoan {
public:
  explicit ToggleLoan(MediumState& state) : _state(state) {}
  ~ToggleLoan() { _state.giveBack(); }
  ToggleLoan(const ToggleLoan&) = delete;
  ToggleLoan& operator=(const ToggleLoan&) = delete;

private:
  MediumState& _state;
};

}  // namespace kestrova
