#include <kestrova/platform/linux/audio/PulseAudioDevice.h>
#include <kestrova/platform/linux/webrtc/Engine.h>
#include <kestrova/platform/linux/webrtc/PeerConnectionFactory.h>
#include <kestrova/platform/linux/webrtc/Sources.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>

#include <api/audio_codecs/opus_audio_decoder_factory.h>
#include <api/audio_codecs/opus_audio_encoder_factory.h>
#include <api/call/call_factory_interface.h>
#include <api/rtc_event_log/rtc_event_log_factory.h>
#include <api/task_queue/default_task_queue_factory.h>
#include <api/transport/field_trial_based_config.h>
#include <api/video_codecs/builtin_video_decoder_factory.h>
#include <api/video_codecs/builtin_video_encoder_factory.h>
#include <media/engine/webrtc_media_engine.h>
#include <rtc_base/logging.h>
#include <rtc_base/ssl_adapter.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kestrova {
namespace {

/// Ends engines whose last holder was a thread of their own, which cannot wait for itself.
class Undertaker {
public:
  ~Undertaker() {
    for (auto& thread : _threads) thread.join();
  }
  void take(Engine* engine) {
    std::scoped_lock held(_lock);
    _threads.emplace_back([engine] { delete engine; });
  }
  static Undertaker& shared() {
    static Undertaker instance;
    return instance;
  }

private:
  std::mutex _lock;
  std::vector<std::thread> _threads;
};

void release(Engine* engine) {
  if (inEngineCallback() || engine->thread().isCurrent())
    Undertaker::shared().take(engine);
  else
    delete engine;
}

void prepareProcess() {
  static std::once_flag once;
  std::call_once(once, [] {
    // The process's error stream belongs to the application.
    rtc::LogMessage::LogToDebug(rtc::LS_NONE);
    rtc::InitializeSSL();
    Undertaker::shared();
  });
}

std::unique_ptr<rtc::Thread> started(std::unique_ptr<rtc::Thread> thread, const char* name) {
  thread->SetName(name, nullptr);
  thread->Start();
  return thread;
}

/// The engine writes a track's id into descriptions: only visible characters without spaces there.
std::string plainId(const std::string& id) {
  std::string plain;
  std::copy_if(id.begin(), id.end(), std::back_inserter(plain),
               [](char c) { return c > ' ' && c < 127; });
  return plain.empty() ? "track" : plain;
}

}  // namespace

std::shared_ptr<Engine> Engine::shared() {
  static std::mutex lock;
  static std::weak_ptr<Engine> current;
  std::scoped_lock held(lock);
  if (auto engine = current.lock()) return engine;
  prepareProcess();
  std::shared_ptr<Engine> engine(new Engine, release);
  current = engine;
  return engine;
}

Engine::Engine()
    : _network(started(rtc::Thread::CreateWithSocketServer(), "engine-network")),
      _worker(started(rtc::Thread::Create(), "engine-worker")),
      _signalling(started(rtc::Thread::Create(), "engine-signal")) {
  _audioDevice = _worker->BlockingCall([] { return PulseAudioDevice::make(); });

  webrtc::PeerConnectionFactoryDependencies parts;
  parts.network_thread = _network.get();
  parts.worker_thread = _worker.get();
  parts.signaling_thread = _signalling.get();
  parts.task_queue_factory = webrtc::CreateDefaultTaskQueueFactory();
  parts.call_factory = webrtc::CreateCallFactory();
  parts.event_log_factory =
      std::make_unique<webrtc::RtcEventLogFactory>(parts.task_queue_factory.get());
  parts.trials = std::make_unique<webrtc::FieldTrialBasedConfig>();

  cricket::MediaEngineDependencies media;
  media.task_queue_factory = parts.task_queue_factory.get();
  media.trials = parts.trials.get();
  media.adm = _audioDevice;
  // The built-in audio factories of the packaged archive lack Opus.
  media.audio_encoder_factory = webrtc::CreateOpusAudioEncoderFactory();
  media.audio_decoder_factory = webrtc::CreateOpusAudioDecoderFactory();
  media.video_encoder_factory = webrtc::CreateBuiltinVideoEncoderFactory();
  media.video_decoder_factory = webrtc::CreateBuiltinVideoDecoderFactory();
  parts.media_engine = cricket::CreateMediaEngine(std::move(media));

  _factory = webrtc::CreateModularPeerConnectionFactory(std::move(parts));
  if (!_factory) throw std::runtime_error("the WebRTC engine could not be made");
  webrtc::PeerConnectionFactoryInterface::Options options;
  options.network_ignore_mask = 0;  // a media server on this machine is reached by loopback
  _factory->SetOptions(options);
  _thread = std::make_unique<EngineThread>();
}

Engine::~Engine() {
  _thread.reset();
  _factory = nullptr;
  _worker->BlockingCall([this] { _audioDevice = nullptr; });
  _signalling->Stop();
  _worker->Stop();
  _network->Stop();
}

std::shared_ptr<RTCVideoSource> Engine::videoSource() {
  return std::make_shared<VideoSource>(shared_from_this());
}

std::shared_ptr<RTCAudioSource> Engine::audioSource(
    const std::map<std::string, std::string>& constraints) {
  return std::make_shared<AudioSource>(shared_from_this(), constraints);
}

std::shared_ptr<RTCVideoTrack> Engine::videoTrack(const std::shared_ptr<RTCVideoSource>& source,
                                                  const std::string& trackId) {
  auto own = std::dynamic_pointer_cast<VideoSource>(source);
  if (!own) return nullptr;
  auto track = _factory->CreateVideoTrack(plainId(trackId), &own->engineSource());
  return VideoTrack::make(shared_from_this(), track, trackId);
}

std::shared_ptr<RTCAudioTrack> Engine::audioTrack(const std::shared_ptr<RTCAudioSource>& source,
                                                  const std::string& trackId) {
  auto own = std::dynamic_pointer_cast<AudioSource>(source);
  if (!own) return nullptr;
  auto track = _factory->CreateAudioTrack(plainId(trackId), &own->engineSource());
  return AudioTrack::make(shared_from_this(), track, trackId);
}

std::shared_ptr<RTCPeerConnectionFactory> sharedPeerConnectionFactory() {
  return Engine::shared();
}

}  // namespace kestrova
