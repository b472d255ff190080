#pragma once

#include <kestrova/session/MeetingContext.h>

#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// What the service-side services of a meeting are doing, as their events tell.
class ServiceStatus {
public:
  explicit ServiceStatus(std::shared_ptr<MeetingContext> context) : _context(std::move(context)) {}

  std::optional<HLSUrl> hlsUrls() const { return read(_hlsUrls); }
  HLSState hlsState() const { return read(_hlsState); }
  LiveStreamState liveStreamState() const { return read(_liveStreamState); }
  RecordingState recordingState() const { return read(_recordingState); }
  TranscriptionState transcriptionState() const { return read(_transcriptionState); }

  void onHlsStateChanged(HLSState state, const HLSUrl& hlsUrls);
  void onLivestreamStateChanged(LiveStreamState state);
  void onRecordingStateChanged(RecordingState state);
  void onTranscriptionStateChanged(TranscriptionState state);
  void whiteboardStarted(const std::string& url);
  void whiteboardStopped();
  /// Another meeting: whatever ran in the one before does not run here.
  void stopAll();

private:
  template <class T>
  T read(const T& field) const {
    std::scoped_lock held(_statusLock);
    return field;
  }
  template <class T>
  void write(T& field, T value) {
    std::scoped_lock held(_statusLock);
    field = std::move(value);
  }

  const std::shared_ptr<MeetingContext> _context;
  mutable std::mutex _statusLock;
  std::optional<HLSUrl> _hlsUrls;
  HLSState _hlsState = HLSState::HLS_STOPPED;
  LiveStreamState _liveStreamState = LiveStreamState::LIVESTREAM_STOPPED;
  RecordingState _recordingState = RecordingState::RECORDING_STOPPED;
  TranscriptionState _transcriptionState = TranscriptionState::TRANSCRIPTION_STOPPED;
  bool _hasWhiteboard = false;
};

}  // namespace kestrova
