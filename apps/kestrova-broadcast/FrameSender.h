#pragma once

#include "Ending.h"
#include "JpegEncoder.h"
#include <span>
#include <string>

namespace kestrova::broadcast {

/// The connection to the program in the meeting.
class FrameSender {
public:
  /// Whoever took the pictures has closed the connection: the share is over.
  struct Closed {};

  explicit FrameSender(const Ending& ending) : _ending(ending) {}
  ~FrameSender();
  FrameSender(const FrameSender&) = delete;
  FrameSender& operator=(const FrameSender&) = delete;

  /// Whether somebody listens there, and is one of this user's.
  bool connect(const std::string& path);
  /// Waits until all is sent. \throws Closed, Ending::Reached
  void send(const EncodedPicture& picture);
  /// Waits for the next picture's time. \throws Closed, Ending::Reached
  void waitUntil(Ending::TimePoint due) const;

private:
  void write(std::span<const std::uint8_t> bytes) const;

  const Ending& _ending;
  int _socket = -1;
};

}  // namespace kestrova::broadcast
