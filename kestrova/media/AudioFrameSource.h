#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/media/PushResult.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/VideoFrame.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// An application's own sound as a microphone of a meeting.
///
///     auto source = AudioFrameSource::make();
///     auto meeting = Kestrova::initMeeting({..., .micEnabled = true,
///                                           .customAudioTrack = source->makeStream()});
///     source->push({samples, 16'000, 1, 160});
///
/// Blocks that come at the pace of speech go out at once. Those that come faster, a whole sentence
/// from a speech synthesiser for instance, wait in a queue and go out one every 10 ms. When nothing
/// was pushed for a while silence goes out, as from a real microphone, so that receivers keep their
/// pace.
///
/// Pushing is done by any one thread at a time and never waits; the other operations are for any
/// thread.
class AudioFrameSource : public std::enable_shared_from_this<AudioFrameSource> {
public:
  static constexpr std::chrono::milliseconds blockTime{10};
  /// Ten seconds of sound; a block that comes when so many wait is refused.
  static constexpr std::size_t mostQueued = 1000;

  static std::shared_ptr<AudioFrameSource> make();

  /// Takes 10 ms of samples and copies them if they have to wait.
  PushResult push(const AudioData& data);
  /// Forgets what is waiting, to fall silent at once.
  void clear();
  /// How much sound is waiting.
  std::chrono::milliseconds queued() const;
  PushCounters counters() const;

  /// A new stream that carries the pushed sound. A stream is for one publication: make another to
  /// turn the microphone on again.
  /// \param settings how it is published; its track and capture are ignored
  std::shared_ptr<CustomRTCMediaStream> makeStream(CustomStreamFields settings = {}) const;

private:
  using Clock = Scheduler::Clock;
  struct Block {
    std::vector<std::int16_t> samples;
    int sampleRate = 0;
    int channels = 0;
  };

  AudioFrameSource(std::shared_ptr<RTCPeerConnectionFactory> factory,
                   std::shared_ptr<Scheduler> scheduler);
  PushResult enqueue(const AudioData& data);
  void scheduleTick();
  void tick();
  bool takeDue(Clock::time_point now, Block& block);
  void moveOn(Clock::time_point now);
  void hand(const Block& block);

  const std::shared_ptr<RTCPeerConnectionFactory> _factory;
  const std::shared_ptr<Scheduler> _scheduler;
  const std::shared_ptr<RTCAudioSource> _source;
  const std::shared_ptr<SerialQueue> _pacingQueue;

  mutable std::mutex _lock;  // for all below
  std::deque<Block> _queue;
  std::vector<Block> _idle;  // kept for their memory
  PushCounters _counters;
  Clock::time_point _nextDue;  // when the block after the last one is due
  int _lastRate = 0;
  int _lastChannels = 0;
  bool _ticking = false;
  bool _handing = false;  // some thread is inside the engine's source, which takes one at a time
};

}  // namespace kestrova
