#pragma once

#include <kestrova/session/MediaStream.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kestrova {

/// The streams of one participant or character by their id. Thread-safe; what is let go of is never
/// destroyed under the lock.
class StreamMap {
public:
  using Streams = std::map<std::string, std::shared_ptr<MediaStream>>;

  Streams all() const;
  /// Replaces a stream of the same id.
  void add(std::shared_ptr<MediaStream> stream);
  /// The stream that was there, if one was.
  std::shared_ptr<MediaStream> take(const std::string& id);
  Streams takeAll();

  /// Tells those who listen to a stream how it flows, on the main queue.
  void tellState(StreamState state, const std::string& streamOrTrackId,
                 const std::string& ownerId) const;
  /// The meeting was let go of: nobody hears anything any more.
  void dismissListeners() const;

private:
  mutable std::mutex _streamsLock;
  Streams _streams;
};

}  // namespace kestrova
