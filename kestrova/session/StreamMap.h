#pragma once

#include <kestrova/platform/WebRTC.h>
#include <kestrova/session/MediaStream.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace kestrova {

/// The streams of one participant or character by their id. Thread-safe; what is let go of is never
/// destroyed under the lock.
class StreamMap {
public:
  using Streams = std::map<std::string, std::shared_ptr<MediaStream>>;

  Streams all() const {
    std::scoped_lock held(_streamsLock);
    return _streams;
  }
  /// Replaces a stream of the same id.
  void add(std::shared_ptr<MediaStream> stream) {
    const auto& id = stream->id();
    std::shared_ptr<MediaStream> replaced = stream;
    std::scoped_lock held(_streamsLock);
    _streams[id].swap(replaced);
  }
  /// The stream that was there, if one was.
  std::shared_ptr<MediaStream> take(const std::string& id) {
    std::scoped_lock held(_streamsLock);
    auto node = _streams.extract(id);
    return node.empty() ? nullptr : std::move(node.mapped());
  }
  /// By its id, or by that of its track.
  std::shared_ptr<MediaStream> find(const std::string& idOrTrackId) const {
    for (const auto& [id, stream] : all())
      if (id == idOrTrackId || stream->track()->id() == idOrTrackId) return stream;
    return nullptr;
  }
  Streams takeAll() {
    std::scoped_lock held(_streamsLock);
    return std::exchange(_streams, {});
  }

private:
  mutable std::mutex _streamsLock;
  Streams _streams;
};

}  // namespace kestrova
