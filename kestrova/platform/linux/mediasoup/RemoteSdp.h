#pragma once

#include <kestrova/platform/linux/mediasoup/RtpParameters.h>
#include <kestrova/platform/linux/mediasoup/TransportParameters.h>

#include <cstdint>
#include <string>
#include <vector>

/// Writing the media server's side of a session, which it never writes itself (RFC 8829).
namespace kestrova::mediasoup {

struct RemoteSection {
  std::string mid;
  MediaKind kind = MediaKind::audio;
  Direction direction = Direction::inactive;
  /// A closed section has port 0; another track may take its place.
  bool closed = false;
  std::vector<RtpCodec> codecs;
  std::vector<RtpHeaderExtension> headerExtensions;
  /// The simulcast layers that are received, lowest first.
  std::vector<std::string> rids;
  /// What is sent to us: stream and track ids, the media SSRC and the one of its RTX.
  std::string streamId;
  std::string trackId;
  std::string cname;
  std::uint32_t ssrc = 0;
  std::uint32_t rtxSsrc = 0;
};

/// The session so far. Values in, text out; no engine.
class RemoteSdp {
public:
  enum class Role { offerer, answerer };
  RemoteSdp(RemoteTransport transport, Role role);

  void setIce(IceParameters ice) { _transport.ice = std::move(ice); }
  const IceParameters& ice() const { return _transport.ice; }

  const std::vector<RemoteSection>& sections() const { return _sections; }
  bool has(const std::string& mid) const;
  /// The place that a new section takes: that of a closed one, else behind the last.
  std::size_t freeIndex() const;
  void put(std::size_t index, RemoteSection section);
  /// Ends the section of `mid`. The first one carries the whole bundle: it only falls silent.
  /// \return whether its place is free now
  bool close(const std::string& mid);

  /// Brings back an earlier state after a refused negotiation.
  using Snapshot = std::pair<IceParameters, std::vector<RemoteSection>>;
  Snapshot snapshot() const { return {_transport.ice, _sections}; }
  void restore(Snapshot snapshot);

  /// The description, with a new version number each time.
  std::string text();

private:
  void writeSection(std::string& sdp, const RemoteSection& section) const;

  RemoteTransport _transport;
  Role _role;
  std::vector<RemoteSection> _sections;
  int _version = 0;
};

}  // namespace kestrova::mediasoup
