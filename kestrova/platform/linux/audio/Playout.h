#pragma once

#include <kestrova/platform/linux/audio/PlayoutClock.h>
#include <kestrova/platform/linux/audio/PulseConnection.h>
#include <kestrova/platform/linux/audio/PulsePlayback.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

namespace kestrova {

/// Takes received audio in real time from construction to destruction, on a thread of its own, and
/// plays it on the speaker whenever that is there. Without a sound server the audio is taken all
/// the same and thrown away; the server is looked for again, up to every five seconds.
class Playout {
public:
  /// Fills 10 ms of `channels` interleaved channels at 48 kHz. On the playout thread.
  using Source = std::function<void(std::int16_t* samples, int channels)>;

  explicit Playout(Source source);
  /// Waits for a call of the source in progress.
  ~Playout();
  Playout(const Playout&) = delete;
  Playout& operator=(const Playout&) = delete;

private:
  using Clock = std::chrono::steady_clock;

  void run();
  void tend(Clock::time_point now);
  void dropConnection();
  void dropPlayback();
  void beginPlayback();
  void listenForSinks();
  void retryLater(Clock::time_point now);
  void takeSilently();

  Source _source;
  PulseConnection _connection;
  std::atomic<bool> _stopping{false};
  // The playout thread's:
  PlayoutClock _clock;
  std::optional<PulsePlayback> _playback;
  std::uint64_t _speakerVersion = 0;
  bool _listens = false;
  Clock::time_point _nextTry = Clock::time_point::min();
  Clock::duration _wait;
  std::thread _thread;
};

}  // namespace kestrova
