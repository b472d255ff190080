#include "MediaWatch.h"

#include <kestrova/platform/Queue.h>

#include <utility>

namespace kestrova::meet {

std::shared_ptr<MediaWatch> MediaWatch::make(Whose whose, Teller tell,
                                             std::shared_ptr<recording::Recording> recorded) {
  std::shared_ptr<MediaWatch> self(new MediaWatch(std::move(whose), std::move(tell)));
  self->_recording = std::move(recorded);
  self->prepare();
  return self;
}

void MediaWatch::prepare() {
  // Called back on the engine's threads.
  const auto onFirst = [this](const char* event, const char* line) {
    return [weak = weak_from_this(), event, line] {
      MainQueue::shared().async([weak, event, line] {
        if (const auto self = weak.lock()) self->tell(event, {}, line + self->name());
      });
    };
  };
  _camera = std::make_shared<PictureWatch>(onFirst("firstPicture", "first picture of "));
  _share = std::make_shared<PictureWatch>(onFirst("firstShare", "first picture of the screen of "));
  _sound = std::make_shared<SoundWatch>(onFirst("firstSound", "sound of "));
}

void MediaWatch::tell(std::string_view event, Dictionary details, const std::string& line) const {
  details["id"] = id();
  details["name"] = name();
  _tell(event, std::move(details), line);
}

void MediaWatch::add(const std::shared_ptr<MediaStream>& stream) {
  if (!_streams.emplace(stream->id(), Watched{.stream = stream}).second) return;
  const std::string kind(text(stream->kind()));
  tell("streamEnabled", {{"kind", kind}}, kind + " of " + name());
  if (local()) return;
  if (const auto video = stream->videoTrack())
    video->addSink(stream->kind() == MediaType::share ? _share : _camera);
  if (const auto audio = stream->audioTrack()) audio->addSink(_sound);
  if (!_recording || stream->kind() == MediaType::share) return;
  stream->addSink(_recording->pictures());  // each takes its own medium only
  stream->addSink(_recording->sound());
}

void MediaWatch::remove(const std::shared_ptr<MediaStream>& stream) {
  if (_streams.erase(stream->id()) == 0) return;
  const std::string kind(text(stream->kind()));
  tell("streamDisabled", {{"kind", kind}}, kind + " of " + name() + " ended");
}

std::string MediaWatch::finishRecording() {
  if (!_recording) return {};
  _recording->finish();
  return _recording->problem();
}

Task<void> MediaWatch::takeStats(std::weak_ptr<MediaWatch> weak,
                                 std::shared_ptr<MediaStream> stream) {
  auto asking = stream->stats();
  const std::string stats = co_await std::move(asking);
  const auto self = weak.lock();
  if (!self) co_return;
  const auto found = self->_streams.find(stream->id());
  if (found != self->_streams.end()) found->second.rates.take(stats, Clock::now());
}

void MediaWatch::measure(Clock::time_point now) {
  _camera->measure(now);
  _share->measure(now);
  for (const auto& [id, watched] : _streams)
    spawnOn(MainQueue::shared(), takeStats(weak_from_this(), watched.stream));
}

const std::shared_ptr<PictureWatch>& MediaWatch::shownPicture() const {
  return _camera->seen().frames == 0 && _share->seen().frames > 0 ? _share : _camera;
}

PersonRow MediaWatch::row(bool here) const {
  PersonRow row{.id = id(), .name = name(), .local = local(), .here = here};
  if (!local()) {
    const auto picture = shownPicture()->seen();
    row.width = picture.width;
    row.height = picture.height;
    row.fps = here ? picture.fps : 0;
    row.frames = picture.frames;
  }
  for (const auto& [id, watched] : _streams) {
    row.streams.emplace_back(text(watched.stream->kind()));
    const auto& rates = watched.rates.rates();
    if (rates.kbps) row.kbps = row.kbps.value_or(0) + *rates.kbps;
    if (rates.roundTripMs) row.roundTripMs = rates.roundTripMs;
    if (local() && rates.width > row.width) {
      row.width = rates.width;
      row.height = rates.height;
      row.fps = rates.fps;
    }
    if (!local() && watched.stream->kind() == MediaType::audio) {
      const auto heard = _sound->heard();
      row.levelDb = heard.levelDb;
      row.hertz = heard.hertz;
    }
  }
  return row;
}

RemoteSummary MediaWatch::summary(Clock::time_point joinStarted) const {
  const auto picture = shownPicture()->seen();
  const auto heard = _sound->heard();
  RemoteSummary summary{.id = id(),
                        .name = name(),
                        .frames = picture.frames,
                        .width = picture.width,
                        .height = picture.height,
                        .soundHeard = heard.heard,
                        .hertz = heard.hertz};
  if (picture.first)
    summary.firstPicture =
        std::chrono::duration_cast<std::chrono::milliseconds>(*picture.first - joinStarted);
  return summary;
}

VideoFrame MediaWatch::lastPicture() const {
  return shownPicture()->seen().last;
}

}  // namespace kestrova::meet
