#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace kestrova {

class CustomRTCMediaStream;

/// Answers somebody who asks for this participant's microphone or camera with yes. Copyable; may be
/// called at any time, from any thread, and does nothing once the meeting is gone. It returns at
/// once, and reports as `Meeting::unmuteMic` and `Meeting::enableWebcam` do.
///
/// An `Action` holds one, too, and calls the first form.
class AcceptMediaRequest {
public:
  using Stream = std::shared_ptr<CustomRTCMediaStream>;

  /// Does nothing when it is called.
  AcceptMediaRequest() = default;
  /// Of what takes a `Stream`, which is null in the first form, or of what takes nothing and is
  /// called in both.
  template <class Function>
  requires(!std::same_as<Function, AcceptMediaRequest> &&
           (std::invocable<Function&, const Stream&> || std::invocable<Function&>))
      AcceptMediaRequest(Function function) {
    if constexpr (std::invocable<Function&, const Stream&>)
      _accept = std::move(function);
    else if (std::function<void()> plain = std::move(function))
      _accept = [plain = std::move(plain)](const Stream&) { plain(); };
  }

  /// Opens the machine's device and publishes it, as `unmuteMic()` and `enableWebcam()` do. What is
  /// on already stays as it is, whatever track it has.
  void operator()() const { (*this)(nullptr); }
  /// Publishes the application's own track and opens no device; null is the first form.
  void operator()(const Stream& stream) const {
    if (_accept) _accept(stream);
  }

private:
  std::function<void(const Stream&)> _accept;
};

}  // namespace kestrova
