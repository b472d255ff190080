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
  /// \returns the one of the same id that it replaces, if there was another
  std::shared_ptr<MediaStream> add(std::shared_ptr<MediaStream> stream);
  /// The stream that was there, if one was.
  std::shared_ptr<MediaStream> take(const std::string& id);
  Streams takeAll();

  /// Tells those who listen to a stream how it flows, on the main queue.
  void tellState(StreamState state, const std::string& streamOrTrackId,
                 const std::string& ownerId) const;
  /// Hands the stream of that id its present numbers. \returns whether it is here
  bool takeMetrics(const std::string& id, const StreamMetrics& metrics) const;
  /// The meeting was let go of: nobody hears anything any more.
  void dismissListeners() const;

  /// On the main queue: tells those who listen to a stream that it has ended, unless they know.
  static void tellEnd(MediaStream& stream, const std::string& ownerId) {
    tell(stream, StreamState::ENDED, ownerId);
  }

  /// The same for all of them, soon; any thread.
  void tellEnds(const std::string& ownerId) const;

private:
  static void tell(MediaStream& stream, StreamState state, const std::string& ownerId);

  mutable std::mutex _streamsLock;
  Streams _streams;
};

}  // namespace kestrova
