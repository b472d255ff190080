#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/linux/mediasoup/PeerConnection.h>
#include <kestrova/platform/linux/mediasoup/StatsList.h>

#include <api/jsep.h>
#include <api/make_ref_counted.h>
#include <api/stats/rtc_stats_collector_callback.h>
#include <api/stats/rtc_stats_report.h>
#include <boost/asio/post.hpp>

#include <chrono>
#include <future>
#include <mutex>

namespace kestrova::mediasoup {
namespace {

using webrtc::PeerConnectionInterface;

/// The engine answers in milliseconds; one that does not in this time is stuck.
constexpr auto kLongestWait = std::chrono::seconds(10);

template <class T>
T awaited(std::future<T> result) {
  if (result.wait_for(kLongestWait) != std::future_status::ready)
    throw MediasoupError("the WebRTC engine does not answer");
  return result.get();
}

std::exception_ptr failure(const webrtc::RTCError& error) {
  return std::make_exception_ptr(
      MediasoupError(std::string("the WebRTC engine: ") + error.message()));
}

class CreateObserver : public webrtc::CreateSessionDescriptionObserver {
public:
  void OnSuccess(webrtc::SessionDescriptionInterface* description) override {
    std::unique_ptr<webrtc::SessionDescriptionInterface> owned(description);
    std::string sdp;
    owned->ToString(&sdp);
    result.set_value(std::move(sdp));
  }
  void OnFailure(webrtc::RTCError error) override { result.set_exception(failure(error)); }
  std::promise<std::string> result;
};

class SetObserver : public webrtc::SetLocalDescriptionObserverInterface,
                    public webrtc::SetRemoteDescriptionObserverInterface {
public:
  void OnSetLocalDescriptionComplete(webrtc::RTCError error) override { finish(error); }
  void OnSetRemoteDescriptionComplete(webrtc::RTCError error) override { finish(error); }
  std::promise<void> result;

private:
  void finish(const webrtc::RTCError& error) {
    if (error.ok())
      result.set_value();
    else
      result.set_exception(failure(error));
  }
};

class StatsObserver : public webrtc::RTCStatsCollectorCallback {
public:
  StatsObserver(std::shared_ptr<void> underWay, PeerConnection::ReportHandler done)
      : _underWay(std::move(underWay)), _done(std::move(done)) {}
  ~StatsObserver() override {
    _underWay.reset();
    if (_done) _done(nullptr);
  }
  void OnStatsDelivered(const rtc::scoped_refptr<const webrtc::RTCStatsReport>& report) override {
    _underWay.reset();
    // Of fifty streams this takes milliseconds, which the media should not wait for.
    boost::asio::post(Runtime::background(), [report, done = std::exchange(_done, nullptr)] {
      if (done) done(report.get());
    });
  }

private:
  std::shared_ptr<void> _underWay;
  PeerConnection::ReportHandler _done;
};

std::unique_ptr<webrtc::SessionDescriptionInterface> description(webrtc::SdpType type,
                                                                 const std::string& sdp) {
  webrtc::SdpParseError error;
  auto result = webrtc::CreateSessionDescription(type, sdp, &error);
  if (!result)
    throw MediasoupError("the WebRTC engine refuses the line \"" + error.line +
                         "\": " + error.description);
  return result;
}

}  // namespace

class PeerConnection::Observer final : public webrtc::PeerConnectionObserver {
public:
  explicit Observer(StateHandler onState) : _onState(std::move(onState)) {}
  void silence() {
    StateHandler spent;
    std::scoped_lock held(_lock);
    spent.swap(_onState);
  }

  void OnSignalingChange(PeerConnectionInterface::SignalingState) override {}
  void OnDataChannel(rtc::scoped_refptr<webrtc::DataChannelInterface>) override {}
  void OnIceGatheringChange(PeerConnectionInterface::IceGatheringState) override {}
  void OnIceCandidate(const webrtc::IceCandidateInterface*) override {}
  void OnStandardizedIceConnectionChange(
      PeerConnectionInterface::IceConnectionState state) override {
    _iceCompleted = state == PeerConnectionInterface::kIceConnectionCompleted;
    report();
  }
  void OnConnectionChange(PeerConnectionInterface::PeerConnectionState state) override {
    _connection = state;
    report();
  }

private:
  TransportConnectionState state() const {
    switch (_connection) {
      case PeerConnectionInterface::PeerConnectionState::kNew:
        return TransportConnectionState::new_;
      case PeerConnectionInterface::PeerConnectionState::kConnecting:
        return TransportConnectionState::checking;
      case PeerConnectionInterface::PeerConnectionState::kConnected:
        return _iceCompleted ? TransportConnectionState::completed
                             : TransportConnectionState::connected;
      case PeerConnectionInterface::PeerConnectionState::kDisconnected:
        return TransportConnectionState::disconnected;
      case PeerConnectionInterface::PeerConnectionState::kFailed:
        return TransportConnectionState::failed;
      case PeerConnectionInterface::PeerConnectionState::kClosed:
        break;
    }
    return TransportConnectionState::closed;
  }

  void report() {
    const auto now = state();
    if (std::exchange(_reported, now) == now) return;
    StateHandler handler;
    {
      std::scoped_lock held(_lock);
      handler = _onState;
    }
    if (handler) handler(now);
  }

  std::mutex _lock;
  StateHandler _onState;  // under _lock
  // The engine's own thread:
  PeerConnectionInterface::PeerConnectionState _connection =
      PeerConnectionInterface::PeerConnectionState::kNew;
  bool _iceCompleted = false;
  TransportConnectionState _reported = TransportConnectionState::new_;
};

PeerConnection::PeerConnection(Engine& engine, const std::vector<IceServer>& iceServers,
                               ICETransportPolicy policy, StateHandler onState)
    : _engine(engine), _observer(std::make_shared<Observer>(std::move(onState))) {
  PeerConnectionInterface::RTCConfiguration config;
  config.sdp_semantics = webrtc::SdpSemantics::kUnifiedPlan;
  config.bundle_policy = PeerConnectionInterface::kBundlePolicyMaxBundle;
  config.rtcp_mux_policy = PeerConnectionInterface::kRtcpMuxPolicyRequire;
  config.type = policy == ICETransportPolicy::relay ? PeerConnectionInterface::kRelay
                                                    : PeerConnectionInterface::kAll;
  for (const auto& server : iceServers) {
    PeerConnectionInterface::IceServer entry;
    entry.urls = server.urls;
    entry.username = server.username;
    entry.password = server.credential;
    config.servers.push_back(std::move(entry));
  }
  webrtc::PeerConnectionDependencies parts(_observer.get());
  auto made = engine.factory().CreatePeerConnectionOrError(config, std::move(parts));
  if (!made.ok()) std::rethrow_exception(failure(made.error()));
  _connection = made.MoveValue();
}

PeerConnection::~PeerConnection() {
  close();
}

/// The observer must outlive the connection, which is let go of here or by the destructor.
struct PeerConnection::LastHold {
  std::shared_ptr<Engine> engine;
  std::shared_ptr<Observer> observer;
  std::shared_ptr<const std::atomic<int>> statistics;
  rtc::scoped_refptr<webrtc::PeerConnectionInterface> connection;
};

void PeerConnection::close() {
  if (_closing.exchange(true)) return;
  _observer->silence();
  closeIdle(_engine,
            LastHold{_engine.weak_from_this().lock(), _observer, _statistics, _connection});
}

/// The engine's Close() waits for statistics that are being made. With one thread for everything it
/// would wait for itself, so they come first.
void PeerConnection::closeIdle(Engine& engine, LastHold last) {
  engine.post([&engine, last = std::move(last)]() mutable {
    if (*last.statistics > 0 && last.engine)
      closeIdle(engine, std::move(last));
    else
      last.connection->Close();
  });
}

std::string PeerConnection::createOffer(bool iceRestart) {
  auto observer = rtc::make_ref_counted<CreateObserver>();
  PeerConnectionInterface::RTCOfferAnswerOptions options;
  options.ice_restart = iceRestart;
  _connection->CreateOffer(observer.get(), options);
  return awaited(observer->result.get_future());
}

std::string PeerConnection::createAnswer() {
  auto observer = rtc::make_ref_counted<CreateObserver>();
  _connection->CreateAnswer(observer.get(), {});
  return awaited(observer->result.get_future());
}

void PeerConnection::setLocal(webrtc::SdpType type, const std::string& sdp) {
  auto observer = rtc::make_ref_counted<SetObserver>();
  _connection->SetLocalDescription(description(type, sdp), observer);
  awaited(observer->result.get_future());
}

void PeerConnection::setRemote(webrtc::SdpType type, const std::string& sdp) {
  auto observer = rtc::make_ref_counted<SetObserver>();
  _connection->SetRemoteDescription(description(type, sdp), observer);
  awaited(observer->result.get_future());
}

void PeerConnection::rollBack() {
  const auto state = _connection->signaling_state();
  auto observer = rtc::make_ref_counted<SetObserver>();
  auto rollback = webrtc::CreateSessionDescription(webrtc::SdpType::kRollback, "");
  if (state == PeerConnectionInterface::kHaveLocalOffer)
    _connection->SetLocalDescription(std::move(rollback), observer);
  else if (state == PeerConnectionInterface::kHaveRemoteOffer)
    _connection->SetRemoteDescription(std::move(rollback), observer);
  else
    return;
  observer->result.get_future().wait_for(kLongestWait);
}

rtc::scoped_refptr<webrtc::RtpTransceiverInterface> PeerConnection::transceiver(
    const std::string& mid) {
  for (const auto& candidate : _connection->GetTransceivers())
    if (candidate->mid() == mid) return candidate;
  return nullptr;
}

void PeerConnection::stats(rtc::scoped_refptr<webrtc::RtpSenderInterface> sender,
                           rtc::scoped_refptr<webrtc::RtpReceiverInterface> receiver,
                           StatsHandler done) {
  gather(sender.get(), receiver.get(), [done = std::move(done)](const auto* report) {
    done(report ? statsText(*report) : "[]");
  });
}

void PeerConnection::statsList(ListHandler done) {
  gather(nullptr, nullptr, [done = std::move(done)](const auto* report) {
    done(report ? mediasoup::statsList(*report) : List());
  });
}

void PeerConnection::gather(webrtc::RtpSenderInterface* sender,
                            webrtc::RtpReceiverInterface* receiver, ReportHandler done) {
  // First it counts, then it looks: a close() on its way either waits for this or is seen here.
  ++*_statistics;
  std::shared_ptr<void> underWay(_statistics.get(), [counter = _statistics](void*) { --*counter; });
  if (_closing) {
    underWay.reset();
    return done(nullptr);
  }
  rtc::scoped_refptr<webrtc::RTCStatsCollectorCallback> observer =
      rtc::make_ref_counted<StatsObserver>(std::move(underWay), std::move(done));
  if (sender)
    _connection->GetStats(rtc::scoped_refptr<webrtc::RtpSenderInterface>(sender), observer);
  else if (receiver)
    _connection->GetStats(rtc::scoped_refptr<webrtc::RtpReceiverInterface>(receiver), observer);
  else
    _connection->GetStats(observer.get());
}

}  // namespace kestrova::mediasoup
