#pragma once

#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/linux/mediasoup/SdpReader.h>
#include <kestrova/platform/linux/webrtc/Engine.h>

#include <atomic>
#include <memory>
#include <string>

namespace kestrova::mediasoup {

/// \throws MediasoupError where `operation`, which waits for the engine, is called from one of its
/// own callbacks
void refuseEngineCallback(const char* operation);

/// The JSON text that tells the server who we are; our side starts the handshake.
std::string dtlsParametersJson(const DtlsFingerprint& fingerprint);

/// Whatever happens first ends it; used where an answer may also never come.
class Closing {
public:
  bool closed() const { return _closed; }
  /// \return whether this call was the one that closed
  bool close() { return !_closed.exchange(true); }

private:
  std::atomic<bool> _closed{false};
};

/// What the two transports have in common. Thread-safe.
struct TransportCore {
  TransportCore(std::shared_ptr<Engine> sharedEngine, std::string transportId);

  std::shared_ptr<Engine> engine;
  std::string id;
  /// Where delegates are called, one call at a time.
  std::shared_ptr<SerialQueue> callbacks;
  Closing closing;
  std::atomic<TransportConnectionState> state{TransportConnectionState::new_};
  std::atomic<bool> connectRaised{false};
};

}  // namespace kestrova::mediasoup
