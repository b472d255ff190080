#include <kestrova/session/AudioControls.h>

#include <utility>

namespace kestrova {
namespace {

Task<void> changeAndTell(std::weak_ptr<MeetingContext> weak, std::string selectedDevice) {
  const auto context = weak.lock();
  if (!context) co_return;
  const auto client = context->roomClient();
  auto changing = client->changeMic(std::move(selectedDevice));
  const auto chosen = co_await std::move(changing);
  if (!chosen) co_return;
  context->emit([device = *chosen](auto& listener) { listener.onMicChanged(device); });
}

}  // namespace

AudioControls::AudioControls(std::shared_ptr<MeetingContext> context)
    : _context(std::move(context)), _queue(SerialQueue::make("live.kestrova.audio.session")) {}

std::vector<AudioDevice> AudioControls::getMics() {
  return _context->roomClient()->audioSession()->getMics();
}

void AudioControls::changeMic(std::string selectedDevice) {
  spawnOn(*_queue, changeAndTell(_context, std::move(selectedDevice)));
}

}  // namespace kestrova
