#include "Person.h"

#include <kestrova/platform/Queue.h>

#include <utility>

namespace kestrova::meet {

Person::Person(std::string id, std::string name, bool local, Teller tell)
    : _id(std::move(id)), _name(std::move(name)), _local(local), _tell(std::move(tell)) {}

std::shared_ptr<Person> Person::make(const std::shared_ptr<Participant>& participant, Teller tell,
                                     std::shared_ptr<recording::Recording> recorded) {
  std::shared_ptr<Person> self(new Person(participant->id(), participant->displayName(),
                                          participant->isLocal(), std::move(tell)));
  self->_recording = std::move(recorded);
  self->prepare();
  self->came(participant);
  return self;
}

void Person::prepare() {
  // Called back on the engine's threads.
  const auto onFirst = [this](const char* event, const char* line) {
    return [weak = weak_from_this(), event, line] {
      MainQueue::shared().async([weak, event, line] {
        if (const auto self = weak.lock()) self->tell(event, {}, line + self->_name);
      });
    };
  };
  _camera = std::make_shared<PictureWatch>(onFirst("firstPicture", "first picture of "));
  _share = std::make_shared<PictureWatch>(onFirst("firstShare", "first picture of the screen of "));
  _sound = std::make_shared<SoundWatch>(onFirst("firstSound", "sound of "));
}

void Person::tell(std::string_view event, Dictionary details, const std::string& line) {
  details["id"] = _id;
  details["name"] = _name;
  _tell(event, std::move(details), line);
}

void Person::came(const std::shared_ptr<Participant>& participant) {
  if (_participant.lock() == participant && _here) return;
  _here = true;
  _participant = participant;
  _streams.clear();
  participant->addEventListener(shared_from_this());
  // Those that came before the listener.
  for (const auto& [id, stream] : participant->streams()) watch(stream);
}

void Person::left() {
  _here = false;
  _participant.reset();
  _streams.clear();
}

void Person::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                             const std::shared_ptr<Participant>&) {
  watch(stream);
}

void Person::onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                              const std::shared_ptr<Participant>&) {
  if (_streams.erase(stream->id()) == 0) return;
  const std::string kind(text(stream->kind()));
  tell("streamDisabled", {{"kind", kind}}, kind + " of " + _name + " ended");
}

void Person::watch(const std::shared_ptr<MediaStream>& stream) {
  if (!_streams.emplace(stream->id(), Watched{.stream = stream}).second) return;
  const std::string kind(text(stream->kind()));
  tell("streamEnabled", {{"kind", kind}}, kind + " of " + _name);
  if (_local) return;
  if (const auto video = stream->videoTrack())
    video->addSink(stream->kind() == MediaType::share ? _share : _camera);
  if (const auto audio = stream->audioTrack()) audio->addSink(_sound);
  if (!_recording || stream->kind() == MediaType::share) return;
  stream->addSink(_recording->pictures());  // each takes its own medium only
  stream->addSink(_recording->sound());
}

std::string Person::finishRecording() {
  if (!_recording) return {};
  _recording->finish();
  return _recording->problem();
}

Task<void> Person::takeStats(std::weak_ptr<Person> weak, std::shared_ptr<MediaStream> stream) {
  auto asking = stream->stats();
  const std::string stats = co_await std::move(asking);
  const auto self = weak.lock();
  if (!self) co_return;
  const auto found = self->_streams.find(stream->id());
  if (found != self->_streams.end()) found->second.rates.take(stats, Clock::now());
}

void Person::measure(Clock::time_point now) {
  _camera->measure(now);
  _share->measure(now);
  for (const auto& [id, watched] : _streams)
    spawnOn(MainQueue::shared(), takeStats(weak_from_this(), watched.stream));
}

const std::shared_ptr<PictureWatch>& Person::shownPicture() const {
  return _camera->seen().frames == 0 && _share->seen().frames > 0 ? _share : _camera;
}

PersonRow Person::row() const {
  PersonRow row{.id = _id, .name = _name, .local = _local, .here = _here};
  if (!_local) {
    const auto picture = shownPicture()->seen();
    row.width = picture.width;
    row.height = picture.height;
    row.fps = _here ? picture.fps : 0;
    row.frames = picture.frames;
  }
  for (const auto& [id, watched] : _streams) {
    row.streams.emplace_back(text(watched.stream->kind()));
    const auto& rates = watched.rates.rates();
    if (rates.kbps) row.kbps = row.kbps.value_or(0) + *rates.kbps;
    if (rates.roundTripMs) row.roundTripMs = rates.roundTripMs;
    if (_local && rates.width > row.width) {
      row.width = rates.width;
      row.height = rates.height;
      row.fps = rates.fps;
    }
    if (!_local && watched.stream->kind() == MediaType::audio) {
      const auto heard = _sound->heard();
      row.levelDb = heard.levelDb;
      row.hertz = heard.hertz;
    }
  }
  return row;
}

RemoteSummary Person::summary(Clock::time_point joinStarted) const {
  const auto picture = shownPicture()->seen();
  const auto heard = _sound->heard();
  RemoteSummary summary{.id = _id,
                        .name = _name,
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

VideoFrame Person::lastPicture() const {
  return shownPicture()->seen().last;
}

}  // namespace kestrova::meet
