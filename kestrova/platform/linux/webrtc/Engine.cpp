#include <kestrova/platform/Mediasoup.h>
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

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace kestrova {
namespace {

/// Ends engines whose last holder was a thread of their own, which cannot wait for itself: another
/// one does. Never destroyed, since those threads use it to the last.
class Undertaker {
public:
  static Undertaker& shared() {
    static auto& instance = *new Undertaker;
    return instance;
  }

  void take(Engine* engine) {
    {
      std::scoped_lock held(_lock);
      ++_pending;
    }
    std::thread([this, engine] {
      delete engine;
      std::scoped_lock held(_lock);
      --_pending;
      _ended.notify_all();
    }).detach();
  }

  /// At the process's exit: what the engine still uses is about to go.
  void wait() {
    std::unique_lock held(_lock);
    _ended.wait_for(held, patience, [this] { return _pending == 0; });
  }

private:
  static constexpr std::chrono::seconds patience{2};
  std::mutex _lock;
  std::condition_variable _ended;
  int _pending = 0;
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
    // Behind it, so that it runs ahead of the cleaning up that the line above has registered.
    std::atexit([] { Undertaker::shared().wait(); });
  });
}

/// The engine that there is. Never destroyed: threads may still ask while the process exits.
struct Shared {
  std::mutex lock;
  std::weak_ptr<Engine> engine;  // under lock
};
Shared& process() {
  static auto& instance = *new Shared;
  return instance;
}

}  // namespace

std::shared_ptr<Engine> Engine::shared() {
  std::scoped_lock held(process().lock);
  if (auto engine = process().engine.lock()) return engine;
  prepareProcess();
  try {
    std::shared_ptr<Engine> engine(new Engine, release);
    process().engine = engine;
    return engine;
  } catch (const std::exception& error) {
    throw MediasoupError(std::string("the WebRTC engine cannot be made: ") + error.what());
  }
}

Engine::Engine() {
  try {
    make();
  } catch (...) {
    end();
    throw;
  }
}

void Engine::make() {
  _own = rtc::Thread::CreateWithSocketServer();
  _own->SetName("engine", nullptr);
  if (!_own->Start()) throw std::runtime_error("no thread");
  _audioDevice = call([] { return PulseAudioDevice::make(); });

  webrtc::PeerConnectionFactoryDependencies parts;
  // Most of what they would do for each other needs an answer at once: one thread spares the waits.
  parts.network_thread = parts.worker_thread = parts.signaling_thread = _own.get();
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
  if (!_factory) throw std::runtime_error("no factory");
  webrtc::PeerConnectionFactoryInterface::Options options;
  options.network_ignore_mask = 0;  // a media server on this machine is reached by loopback
  _factory->SetOptions(options);
  _thread = std::make_unique<EngineThread>();
}

Engine::~Engine() {
  end();
}

void Engine::end() {
  _thread.reset();
  _factory = nullptr;
  if (!_own) return;
  // What was posted before runs before this.
  _own->BlockingCall([this] { _audioDevice = nullptr; });
  _own->Stop();
}

void Engine::post(Work work) {
  _own->PostTask([work = std::move(work)]() mutable { work(); });
}

std::shared_ptr<RTCVideoSource> Engine::videoSource() {
  return std::make_shared<VideoSource>(shared_from_this());
}

std::shared_ptr<RTCVideoSource> Engine::videoSourceForScreenCast() {
  return std::make_shared<VideoSource>(shared_from_this(), true);
}

std::shared_ptr<RTCAudioSource> Engine::audioSource(
    const std::map<std::string, std::string>& constraints) {
  return std::make_shared<AudioSource>(shared_from_this(), constraints);
}

std::shared_ptr<RTCVideoTrack> Engine::videoTrack(const std::shared_ptr<RTCVideoSource>& source,
                                                  const std::string& trackId) {
  const auto own = std::dynamic_pointer_cast<VideoSource>(source);
  return own ? VideoTrack::local(shared_from_this(), *own, trackId) : nullptr;
}

std::shared_ptr<RTCAudioTrack> Engine::audioTrack(const std::shared_ptr<RTCAudioSource>& source,
                                                  const std::string& trackId) {
  const auto own = std::dynamic_pointer_cast<AudioSource>(source);
  return own ? AudioTrack::local(shared_from_this(), *own, trackId) : nullptr;
}

std::shared_ptr<RTCPeerConnectionFactory> sharedPeerConnectionFactory() {
  return Engine::shared();
}

}  // namespace kestrova
