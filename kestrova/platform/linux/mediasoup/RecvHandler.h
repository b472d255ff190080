#pragma once

#include <kestrova/platform/linux/e2ee/FrameGate.h>
#include <kestrova/platform/linux/mediasoup/Ortc.h>
#include <kestrova/platform/linux/mediasoup/PeerConnection.h>
#include <kestrova/platform/linux/mediasoup/RemoteSdp.h>
#include <kestrova/platform/linux/mediasoup/SdpReader.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrova::mediasoup {

/// The receiving side of the exchange: the server's offer, our answer. Engine thread only, unless
/// stated.
class RecvHandler {
public:
  RecvHandler(Engine& engine, RemoteTransport remote, ICETransportPolicy policy,
              CommonCapabilities common, PeerConnection::StateHandler onState);

  struct Received {
    std::string mid;
    rtc::scoped_refptr<webrtc::MediaStreamTrackInterface> track;
    DtlsFingerprint fingerprint;
    rtc::scoped_refptr<e2ee::FrameGate> gate;  ///< of what is encrypted
  };
  /// \throws MediasoupError, having left things as they were
  Received receive(const std::string& trackId, MediaKind kind, RtpParameters parameters,
                   bool encrypted);
  /// Ends what `receive` began, all in one negotiation. Never throws.
  void stop(const std::vector<std::string>& mids);
  /// \throws MediasoupError
  void restartIce(IceParameters ice);
  /// Any thread; returns at once.
  void close() { _connection.close(); }
  /// Of one receiver, or of the whole connection where `mid` is empty.
  void stats(const std::string& mid, PeerConnection::StatsHandler done);
  void statsList(PeerConnection::ListHandler done) { _connection.statsList(std::move(done)); }

private:
  using Transceiver = rtc::scoped_refptr<webrtc::RtpTransceiverInterface>;
  RemoteSection sectionOf(const std::string& trackId, MediaKind kind, RtpParameters parameters);
  std::string freeMid();
  /// \return our answer
  std::string negotiate(const RemoteSection* added, rtc::scoped_refptr<e2ee::FrameGate> gate = {});

  PeerConnection _connection;
  RemoteSdp _remote;
  CommonCapabilities _common;
  std::map<std::string, Transceiver> _transceivers;  // by mid
  unsigned _nextMid = 0;
};

}  // namespace kestrova::mediasoup
