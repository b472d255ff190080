#pragma once

#include <kestrova/platform/linux/e2ee/FrameGate.h>
#include <kestrova/platform/linux/mediasoup/Ortc.h>
#include <kestrova/platform/linux/mediasoup/PeerConnection.h>
#include <kestrova/platform/linux/mediasoup/RemoteSdp.h>
#include <kestrova/platform/linux/mediasoup/SdpReader.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::mediasoup {

/// How a track is to be sent, checked and ready for the engine.
struct SendRequest {
  MediaKind kind = MediaKind::audio;
  std::shared_ptr<EngineTrack> track;
  std::vector<RTCRtpEncodingParameters> encodings;
  Dictionary codecOptions;
  std::optional<RtpCodec> codec;
  bool encrypted = false;
};

/// The sending side of the exchange: our offer, the server's answer. Engine thread only, unless
/// stated.
class SendHandler {
public:
  SendHandler(Engine& engine, RemoteTransport remote, ICETransportPolicy policy,
              CommonCapabilities common, PeerConnection::StateHandler onState);

  struct Sent {
    std::string mid;
    RtpParameters rtpParameters;  ///< for the server
    DtlsFingerprint fingerprint;
    rtc::scoped_refptr<webrtc::RtpSenderInterface> sender;
    rtc::scoped_refptr<e2ee::FrameGate> gate;  ///< of what is to be encrypted
  };
  /// Negotiates the track. Nothing of it is sent before `start`: a server that has yet to accept
  /// the producer would only throw it away, the first key frame included. \throws MediasoupError,
  /// having left things as they were
  Sent send(const SendRequest& request);
  /// Lets the media flow.
  void start(const std::string& mid);
  /// Looks at the statistics of the whole connection. Where less bandwidth is known of than is to
  /// be sent, and the estimate has begun to rise, the engine is made to probe for more, once.
  /// \return whether to look again later: nothing could be said yet
  bool seekBandwidth(const std::string& statistics);
  /// Ends what `send` began, all in one negotiation. Never throws.
  void stop(const std::vector<std::string>& mids);
  /// \throws MediasoupError
  void restartIce(IceParameters ice);
  /// Any thread; returns at once.
  void close() { _connection.close(); }
  /// Of one sender, or of the whole connection where `mid` is empty.
  void stats(const std::string& mid, PeerConnection::StatsHandler done);
  void statsList(PeerConnection::ListHandler done) { _connection.statsList(std::move(done)); }

private:
  struct Sender {
    rtc::scoped_refptr<webrtc::RtpTransceiverInterface> transceiver;
    std::vector<bool> active;  ///< which encodings are to be sent
  };
  struct Streams {
    std::vector<webrtc::RtpEncodingParameters> forEngine;
    std::vector<RtpEncoding> forServer;
  };
  Streams streamsOf(const SendRequest& request, const RtpCodec& codec) const;
  Sent negotiate(const SendRequest& request, RtpParameters sending, RtpParameters answering);
  const SdpMedia& newSection(const SdpSession& offer) const;
  int wantedBitrate() const;

  PeerConnection _connection;
  RemoteSdp _remote;
  CommonCapabilities _common;
  std::map<std::string, Sender> _senders;  // by mid
  int _ceilingBps;                         // of the bandwidth estimation
  double _lastEstimate = 0;                // in bit/s, at the last look
};

}  // namespace kestrova::mediasoup
