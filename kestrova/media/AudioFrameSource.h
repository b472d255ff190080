#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/media/PushResult.h>
#include <kestrova/platform/VideoFrame.h>

#include <chrono>
#include <functional>
#include <memory>

namespace kestrova {

/// What an `AudioFrameSource` is made with.
struct AudioFrameSourceOptions {
  /// How much sound may wait, from nothing to 10 minutes; beyond these the nearer end counts. What
  /// waits is kept as it was pushed: 96 kB a second at 48 kHz mono, 58 MB for 10 minutes of it.
  std::chrono::milliseconds mostQueued{10'000};
};

/// An application's own sound as a microphone of a meeting.
///
///     auto source = AudioFrameSource::make();
///     auto meeting = Kestrova::initMeeting({..., .micEnabled = true,
///                                           .customAudioTrack = source->makeStream()});
///     source->push({samples, 16'000, 1, 160});
///
/// Blocks that come at the pace of speech go out at once. Those that come faster, a whole sentence
/// from a speech synthesiser for instance, wait in a queue and go out one every 10 ms. A block that
/// comes when the queue is full is refused (`PushResult::queueFull`) and counted; what waits stays
/// as it is. `onLow` tells when it is time for more. When nothing was pushed for a while silence
/// goes out, as from a real microphone, so that receivers keep their pace.
///
/// The pace is kept without a publication, too: what goes out before the microphone is published is
/// lost. The local participant's `onStreamEnabled` tells when it is.
///
/// Pushing is done by any one thread at a time and never waits; the other operations are for any
/// thread.
class AudioFrameSource {
public:
  static constexpr std::chrono::milliseconds blockTime{10};
  using Options = AudioFrameSourceOptions;

  static std::shared_ptr<AudioFrameSource> make(Options options = {});

  /// Takes 10 ms of samples and copies them if they have to wait.
  PushResult push(const AudioData& data);
  /// Forgets what is waiting, to fall silent at once.
  void clear();
  /// How much sound is waiting.
  std::chrono::milliseconds queued() const;
  PushCounters counters() const;
  /// Calls `callback` each time what waits falls below `threshold` after having been at it or
  /// above, by going out or by `clear`: a source that never held as much doesn't ask for more.
  ///
  /// The calls come one at a time on a background thread, never from inside `push` or `clear`. The
  /// callback may push, as long as no other thread does so at the same time, and clear; it may take
  /// its time, since what waits goes out meanwhile. One that throws is reported on stderr and
  /// called again the next time. The source keeps it: hold the source weakly in it. \param
  /// threshold above zero, and no more than may wait, else it is never called \param callback takes
  /// the place of the earlier one; nullptr only takes that away. A call that
  ///   is under way goes on, and no other begins.
  void onLow(std::chrono::milliseconds threshold, std::function<void()> callback);

  /// A new stream that carries the pushed sound. A stream is for one publication: make another to
  /// turn the microphone on again.
  /// \param settings how it is published; its track and capture are ignored
  std::shared_ptr<CustomRTCMediaStream> makeStream(CustomStreamFields settings = {}) const;

private:
  class State;
  explicit AudioFrameSource(std::shared_ptr<State> state);

  const std::shared_ptr<State> _state;
};

}  // namespace kestrova
