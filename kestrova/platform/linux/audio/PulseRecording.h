#pragma once

#include <kestrova/platform/linux/audio/PulseConnection.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace kestrova {

/// One stream from a source: 48 kHz, one channel. The server moves it when its source goes away and
/// there is another. Lives on its connection's thread, and not longer than it.
class PulseRecording {
public:
  static constexpr int kSampleRate = 48000;
  static constexpr int kFrames = kSampleRate / 100;
  using Block = std::array<std::int16_t, kFrames>;
  /// Takes 10 ms, which it may change; `delay` is how long ago their first sample was heard.
  using Take = std::function<void(Block& block, std::chrono::milliseconds delay)>;

  /// Begins to record on a ready connection.
  /// \param source empty for the default source, whichever that is in the course of time
  PulseRecording(PulseConnection& connection, const std::string& source, Take take);
  ~PulseRecording();
  PulseRecording(const PulseRecording&) = delete;
  PulseRecording& operator=(const PulseRecording&) = delete;

  bool isRunning() const;
  /// What it was begun on.
  const std::string& asked() const { return _asked; }
  /// The source refused, or it went away and there is no other.
  bool hasFailed() const;
  /// Whether the server has moved the stream since this was last asked.
  bool wasMoved() { return std::exchange(_moved, false); }
  /// The source it records now.
  std::string source() const;

private:
  void read();
  void take(const std::int16_t* samples, std::size_t count);
  std::chrono::milliseconds delay() const;

  Take _take;
  const std::string _asked;
  pa_stream* _stream = nullptr;
  bool _moved = false;
  Block _block{};
  std::size_t _filled = 0;
};

}  // namespace kestrova
