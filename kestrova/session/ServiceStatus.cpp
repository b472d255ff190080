#include <kestrova/session/ServiceStatus.h>

namespace kestrova {

void ServiceStatus::onHlsStateChanged(HLSState state, const HLSUrl& hlsUrls) {
  {
    std::scoped_lock held(_statusLock);
    _hlsState = state;
    _hlsUrls = hlsUrls;
  }
  _context->emit([state, hlsUrls](auto& listener) { listener.onHlsStateChanged(state, hlsUrls); });
}

void ServiceStatus::onLivestreamStateChanged(LiveStreamState state) {
  write(_liveStreamState, state);
  _context->emit([state](auto& listener) { listener.onLivestreamStateChanged(state); });
}

void ServiceStatus::onRecordingStateChanged(RecordingState state) {
  write(_recordingState, state);
  _context->emit([state](auto& listener) { listener.onRecordingStateChanged(state); });
}

void ServiceStatus::onTranscriptionStateChanged(TranscriptionState state) {
  write(_transcriptionState, state);
  _context->emit([state](auto& listener) { listener.onTranscriptionStateChanged(state); });
}

void ServiceStatus::whiteboardStarted(const std::string& url) {
  write(_hasWhiteboard, true);
  _context->emit([url](auto& listener) { listener.onWhiteboardStarted(url); });
}

void ServiceStatus::whiteboardStopped() {
  write(_hasWhiteboard, false);
  _context->emit([](auto& listener) { listener.onWhiteboardStopped(); });
}

void ServiceStatus::stopAll() {
  if (recordingState() != RecordingState::RECORDING_STOPPED) {
    onRecordingStateChanged(RecordingState::RECORDING_STOPPED);
    _context->emit([](auto& listener) { listener.onRecordingStopped(); });
  }
  if (liveStreamState() != LiveStreamState::LIVESTREAM_STOPPED) {
    onLivestreamStateChanged(LiveStreamState::LIVESTREAM_STOPPED);
    _context->emit([](auto& listener) { listener.onLivestreamStopped(); });
  }
  if (hlsState() != HLSState::HLS_STOPPED) onHlsStateChanged(HLSState::HLS_STOPPED, {});
  if (transcriptionState() != TranscriptionState::TRANSCRIPTION_STOPPED)
    onTranscriptionStateChanged(TranscriptionState::TRANSCRIPTION_STOPPED);
  if (read(_hasWhiteboard)) whiteboardStopped();
}

}  // namespace kestrova
