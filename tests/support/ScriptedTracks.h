#pragma once

#include <kestrova/platform/WebRTC.h>

#include "Journal.h"
#include <memory>
#include <set>
#include <string>

namespace kestrova::test {

/// A track with no engine behind it.
template <class Base, class Sink>
class ScriptedTrack final : public Base {
public:
  explicit ScriptedTrack(std::string id, bool enabled = true)
      : _id(std::move(id)), _enabled(enabled) {}
  std::string id() const override { return _id; }
  bool isEnabled() const override { return _enabled; }
  void setEnabled(bool enabled) override { _enabled = enabled; }
  void addSink(const std::shared_ptr<Sink>& sink) override { sinks.insert(sink); }
  void removeSink(const std::shared_ptr<Sink>& sink) override { sinks.erase(sink); }

  std::set<std::shared_ptr<Sink>> sinks;

private:
  const std::string _id;
  bool _enabled;
};
using ScriptedVideoTrack = ScriptedTrack<RTCVideoTrack, VideoSink>;
using ScriptedAudioTrack = ScriptedTrack<RTCAudioTrack, AudioSink>;

class ScriptedVideoSource final : public RTCVideoSource {
public:
  explicit ScriptedVideoSource(Journal& journal) : _journal(journal) {}
  void adaptOutputFormat(int width, int height, int fps) override {
    _journal.add("source.adapt " + std::to_string(width) + "x" + std::to_string(height) + "@" +
                 std::to_string(fps));
  }
  void onFrame(const VideoFrame& frame) override {
    ++frames;
    last = frame;
  }
  int frames = 0;
  VideoFrame last;

private:
  Journal& _journal;
};

class ScriptedAudioSource final : public RTCAudioSource {
public:
  explicit ScriptedAudioSource(std::map<std::string, std::string> constraints)
      : _constraints(std::move(constraints)) {}
  std::map<std::string, std::string> constraints() const override { return _constraints; }
  void onData(const AudioData&) override {}

private:
  std::map<std::string, std::string> _constraints;
};

class ScriptedFactory final : public RTCPeerConnectionFactory {
public:
  explicit ScriptedFactory(Journal& journal) : _journal(journal) {}

  std::shared_ptr<RTCVideoSource> videoSource() override {
    return newestVideoSource = std::make_shared<ScriptedVideoSource>(_journal);
  }
  std::shared_ptr<RTCVideoSource> videoSourceForScreenCast() override {
    auto source = std::make_shared<ScriptedVideoSource>(_journal);
    screenSource = source;
    return source;
  }
  std::shared_ptr<RTCAudioSource> audioSource(
      const std::map<std::string, std::string>& constraints) override {
    audioConstraints = constraints;
    return std::make_shared<ScriptedAudioSource>(constraints);
  }
  std::shared_ptr<RTCVideoTrack> videoTrack(const std::shared_ptr<RTCVideoSource>&,
                                            const std::string& trackId) override {
    return std::make_shared<ScriptedVideoTrack>(trackId);
  }
  std::shared_ptr<RTCAudioTrack> audioTrack(const std::shared_ptr<RTCAudioSource>&,
                                            const std::string& trackId) override {
    return std::make_shared<ScriptedAudioTrack>(trackId);
  }

  std::shared_ptr<ScriptedVideoSource> newestVideoSource;
  /// The newest one for a screen.
  std::weak_ptr<ScriptedVideoSource> screenSource;
  /// Those of the newest audio source.
  std::map<std::string, std::string> audioConstraints;

private:
  Journal& _journal;
};

}  // namespace kestrova::test
