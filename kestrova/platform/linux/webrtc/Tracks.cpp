#include <kestrova/platform/linux/webrtc/Engine.h>
#include <kestrova/platform/linux/webrtc/Sources.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace kestrova {
namespace {

/// The engine writes a track's id into descriptions: only visible characters without spaces there.
std::string plainId(const std::string& id) {
  std::string plain;
  std::copy_if(id.begin(), id.end(), std::back_inserter(plain),
               [](char c) { return c > ' ' && c < 127; });
  return plain.empty() ? "track" : plain;
}

// The engine's own thread:
rtc::scoped_refptr<webrtc::VideoTrackInterface> create(
    webrtc::PeerConnectionFactoryInterface& factory, const std::string& id, VideoTap* tap) {
  return factory.CreateVideoTrack(plainId(id), tap);
}
rtc::scoped_refptr<webrtc::AudioTrackInterface> create(
    webrtc::PeerConnectionFactoryInterface& factory, const std::string& id, AudioTap* tap) {
  return factory.CreateAudioTrack(plainId(id), tap);
}

void connect(webrtc::VideoTrackInterface& track, VideoFeed* feed) {
  track.AddOrUpdateSink(feed, rtc::VideoSinkWants());
}
void connect(webrtc::AudioTrackInterface& track, AudioFeed* feed) {
  track.AddSink(feed);
}

void switchReceived(webrtc::VideoTrackInterface& track, bool enabled) {
  track.set_enabled(enabled);
}
/// By its volume: a receiver whose track is switched gives its frame transformer, if it has one, to
/// the engine once more, and there a debug check ends the process.
void switchReceived(webrtc::AudioTrackInterface& track, bool enabled) {
  if (auto* source = track.GetSource()) source->SetVolume(enabled ? 1 : 0);
}

}  // namespace

/// Outlives the track for as long as the engine's thread has work for it.
template <class Kind>
struct Track<Kind>::Line {
  /// Between the source, or the engine's received track, and the feed. The engine's own thread.
  void serve(bool wanted) {
    if (std::exchange(served, wanted) == wanted) return;
    if (tap)
      tap->serve(wanted);
    else if (wanted)
      connect(*track, feed.get());
    else
      track->RemoveSink(feed.get());
  }

  const std::shared_ptr<typename Kind::Feed> feed = std::make_shared<typename Kind::Feed>();
  rtc::scoped_refptr<typename Kind::Tap> tap;  // of a local track; set once
  // The engine's own thread:
  rtc::scoped_refptr<typename Kind::OfEngine> track;
  bool served = false;
};

template <class Kind>
Track<Kind>::Track(std::shared_ptr<Engine> engine, std::string id)
    : _engine(std::move(engine)), _id(std::move(id)), _line(std::make_shared<Line>()) {}

template <class Kind>
std::shared_ptr<Track<Kind>> Track<Kind>::local(std::shared_ptr<Engine> engine,
                                                typename Kind::Source& source, std::string id) {
  std::shared_ptr<Track> self(new Track(std::move(engine), std::move(id)));
  self->_line->tap = source.tap(self->_line->feed);
  auto& factory = self->_engine->factory();
  self->_engine->post([line = self->_line, &factory, name = self->_id] {
    line->track = create(factory, name, line->tap.get());
  });
  return self;
}

template <class Kind>
std::shared_ptr<Track<Kind>> Track<Kind>::received(
    std::shared_ptr<Engine> engine, rtc::scoped_refptr<typename Kind::OfEngine> track,
    std::string id) {
  std::shared_ptr<Track> self(new Track(std::move(engine), std::move(id)));
  self->_line->track = std::move(track);
  return self;
}

template <class Kind>
Track<Kind>::~Track() {
  if (_line->tap) _line->tap->leave();
  _engine->post([line = _line] {
    line->serve(false);
    line->track = nullptr;
  });
}

template <class Kind>
bool Track<Kind>::isEnabled() const {
  return _line->feed->enabled;
}

template <class Kind>
void Track<Kind>::setEnabled(bool enabled) {
  _line->feed->enabled = enabled;
  _engine->post([line = _line, enabled] {
    if (line->tap)
      line->track->set_enabled(enabled);
    else
      switchReceived(*line->track, enabled);
    line->feed->enabledInEngine = enabled;
  });
}

template <class Kind>
void Track<Kind>::silence() {
  _line->feed->enabled = false;
}

template <class Kind>
void Track<Kind>::addSink(const std::shared_ptr<typename Kind::Sink>& sink) {
  _line->feed->sinks.add(sink);
  updateSinks();
}

template <class Kind>
void Track<Kind>::removeSink(const std::shared_ptr<typename Kind::Sink>& sink) {
  _line->feed->sinks.remove(sink);
  updateSinks();
}

template <class Kind>
void Track<Kind>::updateSinks() {
  _engine->post([line = _line] { line->serve(!line->feed->sinks.empty()); });
}

template <class Kind>
rtc::scoped_refptr<webrtc::MediaStreamTrackInterface> Track<Kind>::engineTrack() const {
  return _engine->call([this] { return _line->track; });
}

template class Track<VideoKind>;
template class Track<AudioKind>;

}  // namespace kestrova
