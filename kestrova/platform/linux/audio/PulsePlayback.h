#pragma once

#include <kestrova/platform/linux/audio/PulseConnection.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace kestrova {

/// One stream to a sink: 48 kHz, one or two channels as the sink has. The server moves it when its
/// sink goes away and there is another. Lives on its connection's thread, and not longer than it.
class PulsePlayback {
public:
  /// Fills 10 ms of `channels` interleaved channels, which are heard after `delay`.
  using Pull =
      std::function<void(std::int16_t* samples, int channels, std::chrono::milliseconds delay)>;

  /// Begins to play on a ready connection.
  /// \param sink empty for the default sink, whichever that is in the course of time
  PulsePlayback(PulseConnection& connection, const std::string& sink, Pull pull);
  ~PulsePlayback();
  PulsePlayback(const PulsePlayback&) = delete;
  PulsePlayback& operator=(const PulsePlayback&) = delete;

  /// There is no such sink, it refused, or it went away and there is no other.
  bool hasFailed() const { return _failed; }
  bool isPlaying() const;

private:
  void find();
  void start(const pa_sink_info& sink);
  void write(std::size_t bytes);
  std::chrono::milliseconds delay() const;

  PulseConnection& _connection;
  const std::string _sink;
  Pull _pull;
  pa_operation* _search = nullptr;
  pa_stream* _stream = nullptr;
  int _channels = 0;
  bool _failed = false;
};

}  // namespace kestrova
