#include <kestrova/platform/Values.h>
#include <kestrova/platform/linux/mediasoup/TransportCore.h>

namespace kestrova::mediasoup {

void refuseEngineCallback(const char* operation) {
  if (inEngineCallback())
    throw MediasoupError(std::string(operation) + " cannot be called from a sink");
}

std::string dtlsParametersJson(const DtlsFingerprint& fingerprint) {
  Dictionary print{{"algorithm", fingerprint.algorithm}, {"value", fingerprint.value}};
  List prints;
  prints.push_back(std::move(print));
  return boost::json::serialize(
      Dictionary{{"role", "client"}, {"fingerprints", std::move(prints)}});
}

TransportCore::TransportCore(std::shared_ptr<Engine> sharedEngine, std::string transportId)
    : engine(std::move(sharedEngine)),
      id(std::move(transportId)),
      callbacks(SerialQueue::make("mediasoup.transport." + id)) {}

}  // namespace kestrova::mediasoup
