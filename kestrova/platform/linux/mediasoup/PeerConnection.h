#pragma once

#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/linux/mediasoup/TransportParameters.h>
#include <kestrova/platform/linux/webrtc/Engine.h>

#include <api/peer_connection_interface.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrova::mediasoup {

/// One peer connection of the engine with waiting operations. Engine thread only, unless stated.
class PeerConnection {
public:
  /// Called on a thread of the engine, never after `close`.
  using StateHandler = std::function<void(TransportConnectionState)>;
  /// \throws MediasoupError
  PeerConnection(Engine& engine, const std::vector<IceServer>& iceServers,
                 ICETransportPolicy policy, StateHandler onState);
  ~PeerConnection();
  PeerConnection(const PeerConnection&) = delete;
  PeerConnection& operator=(const PeerConnection&) = delete;

  webrtc::PeerConnectionInterface& engine() { return *_connection; }
  /// Ends it on the engine's own thread, soon; what is being negotiated fails. Any thread; returns
  /// at once.
  void close();

  /// Each gives the description's text, or \throws MediasoupError.
  std::string createOffer(bool iceRestart = false);
  std::string createAnswer();
  void setLocal(webrtc::SdpType type, const std::string& sdp);
  void setRemote(webrtc::SdpType type, const std::string& sdp);
  /// Gives up a negotiation that is half done. Never throws.
  void rollBack();

  rtc::scoped_refptr<webrtc::RtpTransceiverInterface> transceiver(const std::string& mid);

  using StatsHandler = std::function<void(std::string json)>;
  /// Calls `done` once, on a background thread, on one of the engine or here; with an empty list
  /// when there is nothing.
  void stats(rtc::scoped_refptr<webrtc::RtpSenderInterface> sender,
             rtc::scoped_refptr<webrtc::RtpReceiverInterface> receiver, StatsHandler done);
  using ListHandler = std::function<void(List list)>;
  /// The same of everything, read.
  void statsList(ListHandler done);

  /// Gets nothing when there is no report.
  using ReportHandler = std::function<void(const webrtc::RTCStatsReport* report)>;

private:
  void gather(webrtc::RtpSenderInterface* sender, webrtc::RtpReceiverInterface* receiver,
              ReportHandler done);
  class Observer;
  struct LastHold;
  static void closeIdle(Engine& engine, LastHold last);

  Engine& _engine;
  std::atomic<bool> _closing{false};
  const std::shared_ptr<Observer> _observer;
  // How many statistics are being made.
  const std::shared_ptr<std::atomic<int>> _statistics = std::make_shared<std::atomic<int>>(0);
  rtc::scoped_refptr<webrtc::PeerConnectionInterface> _connection;
};

}  // namespace kestrova::mediasoup
