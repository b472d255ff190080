#include <kestrova/platform/Queue.h>
#include <kestrova/platform/WebRTC.h>
#include <kestrova/session/StreamMap.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

StreamMap::Streams StreamMap::all() const {
  std::scoped_lock held(_streamsLock);
  return _streams;
}

std::shared_ptr<MediaStream> StreamMap::add(std::shared_ptr<MediaStream> stream) {
  std::shared_ptr<MediaStream> replaced = stream;
  {
    std::scoped_lock held(_streamsLock);
    _streams[stream->id()].swap(replaced);
  }
  return replaced == stream ? nullptr : replaced;
}

std::shared_ptr<MediaStream> StreamMap::take(const std::string& id) {
  std::scoped_lock held(_streamsLock);
  auto node = _streams.extract(id);
  return node.empty() ? nullptr : std::move(node.mapped());
}

StreamMap::Streams StreamMap::takeAll() {
  std::scoped_lock held(_streamsLock);
  return std::exchange(_streams, {});
}

void StreamMap::tellState(StreamState state, const std::string& streamOrTrackId,
                          const std::string& ownerId) const {
  for (const auto& [id, stream] : all()) {
    if (id != streamOrTrackId && stream->track()->id() != streamOrTrackId) continue;
    MainQueue::shared().async([stream = stream, state, ownerId] { tell(*stream, state, ownerId); });
    return;
  }
}

void StreamMap::tell(MediaStream& stream, StreamState state, const std::string& ownerId) {
  if (!stream.notifyState(state)) return;
  trace("Emitting STREAM_STATE_CHANGED Event",
        {{"state", streamStateTexts(state)}, {"peerId", ownerId}, {"kind", text(stream.kind())}});
}

void StreamMap::tellEnds(const std::string& ownerId) const {
  MainQueue::shared().async([streams = all(), ownerId] {
    for (const auto& [id, stream] : streams) tellEnd(*stream, ownerId);
  });
}

bool StreamMap::takeMetrics(const std::string& id, const StreamMetrics& metrics) const {
  std::shared_ptr<MediaStream> stream;
  {
    std::scoped_lock held(_streamsLock);
    const auto found = _streams.find(id);
    if (found == _streams.end()) return false;
    stream = found->second;
  }
  stream->takeMetrics(metrics);
  return true;
}

void StreamMap::dismissListeners() const {
  for (const auto& [id, stream] : all()) stream->dismissListeners();
}

}  // namespace kestrova
