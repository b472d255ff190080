#include <kestrova/session/ServiceStatus.h>

namespace kestrova {

void ServiceStatus::onHlsStateChanged(HLSState state, const HLSUrl& hlsUrls) {
  write(_hlsState, state);
  write(_hlsUrls, std::optional(hlsUrls));
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

}  // namespace kestrova
