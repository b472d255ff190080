#include "AudioWatch.h"

#include <kestrova/session/Kestrova.h>

#include "Text.h"
#include <algorithm>

namespace kestrova::meet {

void AudioWatch::changeToNext() {
  const auto mics = _meeting.getMics();
  if (mics.empty()) return _watcher.note("key", "there is no microphone");
  auto next = std::find_if(mics.begin(), mics.end(),
                           [&](const AudioDevice& mic) { return mic.deviceName == _wished; });
  if (next != mics.end()) ++next;
  if (next == mics.end()) next = mics.begin();
  _wished = next->deviceName;
  _watcher.note("key", "microphone wished: " + _wished);
  _meeting.changeMic(_wished);
}

void AudioWatch::onMicChanged(const std::string& selectedDevice) {
  _watcher.note("micChanged", {{"device", selectedDevice}}, "microphone: " + selectedDevice);
}

void AudioWatch::onExternalCallRinging(const std::string& callType) {
  tellCall("ringing", callType);
}
void AudioWatch::onExternalCallAnswered(const std::string& callType) {
  tellCall("answered", callType);
}
void AudioWatch::onExternalCallRejected(const std::string& callType) {
  tellCall("rejected", callType);
}
void AudioWatch::onExternalCallHangup(const std::string& callType) {
  tellCall("hung up", callType);
}

void AudioWatch::tellCall(const char* event, const std::string& callType) {
  _watcher.note("call", {{"state", event}, {"type", callType}},
                "telephone: " + callType + " call, " + event);
}

std::string listDevices(bool asJson) {
  const auto cameras = Kestrova::getCameras();
  const auto microphones = Kestrova::getAudioDevices();
  if (asJson) {
    const auto listed = [](const std::vector<std::string>& names) {
      List list;
      for (const auto& name : names) list.push_back(Value(name));
      return list;
    };
    return boost::json::serialize(
        Dictionary{{"cameras", listed(cameras)}, {"microphones", listed(microphones)}});
  }
  std::string text;
  const auto add = [&](const char* title, const std::vector<std::string>& names) {
    text += title + std::string(names.empty() ? " none\n" : "\n");
    for (const auto& name : names) text += "  " + printable(name) + '\n';
  };
  add("cameras:", cameras);
  add("microphones:", microphones);
  text.pop_back();
  return text;
}

}  // namespace kestrova::meet
