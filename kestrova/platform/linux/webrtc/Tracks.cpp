#include <kestrova/platform/linux/webrtc/Engine.h>
#include <kestrova/platform/linux/webrtc/SinkList.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>
#include <kestrova/platform/linux/webrtc/VideoBuffers.h>

#include <atomic>
#include <utility>

namespace kestrova {

// ---- video -------------------------------------------------------------------------------------

struct VideoTrack::Feed final : rtc::VideoSinkInterface<webrtc::VideoFrame> {
  void OnFrame(const webrtc::VideoFrame& frame) override {
    // A track that is disabled shows black to the engine's own sinks; nobody else is meant to see
    // it.
    if (!enabled || sinks.empty()) return;
    const auto own = frameOf(frame);
    if (!own.buffer) return;
    EngineCallback delivering;
    sinks.forEach([&](VideoSink& sink) { sink.onFrame(own); });
  }
  SinkList<VideoSink> sinks;
  std::atomic<bool> enabled{true};
  bool registered = false;  // engine thread
};

std::shared_ptr<VideoTrack> VideoTrack::make(std::shared_ptr<Engine> engine,
                                             rtc::scoped_refptr<webrtc::VideoTrackInterface> track,
                                             std::string id) {
  return std::shared_ptr<VideoTrack>(
      new VideoTrack(std::move(engine), std::move(track), std::move(id)));
}

VideoTrack::VideoTrack(std::shared_ptr<Engine> engine,
                       rtc::scoped_refptr<webrtc::VideoTrackInterface> track, std::string id)
    : _engine(std::move(engine)),
      _track(std::move(track)),
      _id(std::move(id)),
      _feed(std::make_shared<Feed>()) {}

VideoTrack::~VideoTrack() {
  _engine->thread().post([feed = std::move(_feed), track = std::move(_track)] {
    if (feed->registered) track->RemoveSink(feed.get());
  });
}

bool VideoTrack::isEnabled() const {
  return _feed->enabled;
}

void VideoTrack::setEnabled(bool enabled) {
  _feed->enabled = enabled;
  _engine->thread().post([track = _track, enabled] { track->set_enabled(enabled); });
}

void VideoTrack::addSink(const std::shared_ptr<VideoSink>& sink) {
  _feed->sinks.add(sink);
  updateRegistration();
}

void VideoTrack::removeSink(const std::shared_ptr<VideoSink>& sink) {
  _feed->sinks.remove(sink);
  updateRegistration();
}

void VideoTrack::updateRegistration() {
  _engine->thread().post([feed = _feed, track = _track] {
    const bool wanted = !feed->sinks.empty();
    if (std::exchange(feed->registered, wanted) == wanted) return;
    if (wanted)
      track->AddOrUpdateSink(feed.get(), rtc::VideoSinkWants());
    else
      track->RemoveSink(feed.get());
  });
}

// ---- audio -------------------------------------------------------------------------------------

struct AudioTrack::Feed final : webrtc::AudioTrackSinkInterface {
  using AudioTrackSinkInterface::OnData;
  void OnData(const void* samples, int bits, int rate, size_t channels, size_t frames) override {
    if (bits != 16) return;
    AudioData data{static_cast<const std::int16_t*>(samples), rate, static_cast<int>(channels),
                   static_cast<int>(frames)};
    // The engine's own silence for a disabled track comes after this point of its pipeline.
    if (!enabled) {
      silence.assign(channels * frames, 0);
      data.samples = silence.data();
    }
    EngineCallback delivering;
    sinks.forEach([&](AudioSink& sink) { sink.onData(data); });
  }
  SinkList<AudioSink> sinks;
  std::atomic<bool> enabled{true};
  std::vector<std::int16_t> silence;  // the delivering thread
  bool registered = false;            // engine thread
};

std::shared_ptr<AudioTrack> AudioTrack::make(std::shared_ptr<Engine> engine,
                                             rtc::scoped_refptr<webrtc::AudioTrackInterface> track,
                                             std::string id) {
  return std::shared_ptr<AudioTrack>(
      new AudioTrack(std::move(engine), std::move(track), std::move(id)));
}

AudioTrack::AudioTrack(std::shared_ptr<Engine> engine,
                       rtc::scoped_refptr<webrtc::AudioTrackInterface> track, std::string id)
    : _engine(std::move(engine)),
      _track(std::move(track)),
      _id(std::move(id)),
      _feed(std::make_shared<Feed>()) {}

AudioTrack::~AudioTrack() {
  _engine->thread().post([feed = std::move(_feed), track = std::move(_track)] {
    if (feed->registered) track->RemoveSink(feed.get());
  });
}

bool AudioTrack::isEnabled() const {
  return _feed->enabled;
}

void AudioTrack::setEnabled(bool enabled) {
  _feed->enabled = enabled;
  _engine->thread().post([track = _track, enabled] { track->set_enabled(enabled); });
}

void AudioTrack::addSink(const std::shared_ptr<AudioSink>& sink) {
  _feed->sinks.add(sink);
  updateRegistration();
}

void AudioTrack::removeSink(const std::shared_ptr<AudioSink>& sink) {
  _feed->sinks.remove(sink);
  updateRegistration();
}

void AudioTrack::updateRegistration() {
  _engine->thread().post([feed = _feed, track = _track] {
    const bool wanted = !feed->sinks.empty();
    if (std::exchange(feed->registered, wanted) == wanted) return;
    if (wanted)
      track->AddSink(feed.get());
    else
      track->RemoveSink(feed.get());
  });
}

}  // namespace kestrova
