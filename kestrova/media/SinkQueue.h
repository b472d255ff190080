#pragma once

#include <kestrova/media/SinkHandle.h>
#include <kestrova/platform/WebRTC.h>

#include <boost/asio/any_io_executor.hpp>

#include <array>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// Stands between a track and an application's sink: takes what the engine gives without waiting,
/// and calls the sink on the background executor, one call at a time. When the sink can't keep up
/// the oldest item makes room. The sink is held weakly; when it is gone the queue leaves its track.
class SinkQueue : public SinkHandle, public std::enable_shared_from_this<SinkQueue> {
public:
  SinkCounters counters() const override;
  void remove() override;
  bool isRemoved() const;

protected:
  SinkQueue();
  /// Runs `store` under the lock, and sees to it that the sink is called. `store` gives back
  /// whether it had to drop something.
  template <class Store>
  void take(const Store& store);

  /// Makes the oldest item the current one; false when there is none. Under the lock.
  virtual bool takeOldest() = 0;
  /// Lets go of all that waits. No lock is held.
  virtual void forgetAll() = 0;
  /// Calls the sink with the current item; false when the sink is gone. No lock is held.
  virtual bool callSink() = 0;
  virtual void leaveTrack() = 0;

  /// Without holding the sink, whose last reference might otherwise go where the caller stands.
  template <class Sink>
  static bool isOwnedBy(const std::weak_ptr<Sink>& held, const std::shared_ptr<Sink>& sink) {
    return !held.owner_before(sink) && !sink.owner_before(held);
  }

  mutable std::mutex _lock;

private:
  void schedule();
  void deliverOne();

  const boost::asio::any_io_executor _executor;
  SinkCounters _counters;   // under _lock
  bool _scheduled = false;  // under _lock: a call is under way or on its way
  bool _removed = false;    // under _lock
};

/// The newest pictures of a video track.
class VideoSinkQueue final : public SinkQueue, public VideoSink {
public:
  static constexpr std::size_t capacity = 3;
  VideoSinkQueue(const std::shared_ptr<RTCVideoTrack>& track,
                 const std::shared_ptr<VideoSink>& sink)
      : _track(track), _sink(sink) {}
  bool feeds(const std::shared_ptr<VideoSink>& sink) const { return isOwnedBy(_sink, sink); }
  bool hasSink() const { return !_sink.expired(); }
  void onFrame(const VideoFrame& frame) override;

private:
  bool takeOldest() override;
  void forgetAll() override;
  bool callSink() override;
  void leaveTrack() override;

  const std::weak_ptr<RTCVideoTrack> _track;
  const std::weak_ptr<VideoSink> _sink;
  std::array<VideoFrame, capacity> _ring;  // this and the next two under _lock
  std::size_t _first = 0;
  std::size_t _count = 0;
  VideoFrame _current;  // the delivering thread
};

/// Half a second of an audio track, in memory that is set aside from the start.
class AudioSinkQueue final : public SinkQueue, public AudioSink {
public:
  static constexpr std::size_t capacity = 50;
  AudioSinkQueue(const std::shared_ptr<RTCAudioTrack>& track,
                 const std::shared_ptr<AudioSink>& sink);
  bool feeds(const std::shared_ptr<AudioSink>& sink) const { return isOwnedBy(_sink, sink); }
  bool hasSink() const { return !_sink.expired(); }
  void onData(const AudioData& data) override;

private:
  struct Block {
    std::vector<std::int16_t> samples;
    AudioData data;  // its samples are unset
  };
  bool takeOldest() override;
  void forgetAll() override;
  bool callSink() override;
  void leaveTrack() override;

  const std::weak_ptr<RTCAudioTrack> _track;
  const std::weak_ptr<AudioSink> _sink;
  std::array<Block, capacity> _ring;  // this and the next two under _lock
  std::size_t _first = 0;
  std::size_t _count = 0;
  Block _current;  // the delivering thread
};

}  // namespace kestrova
