#include <kestrova/model/Peer.h>
#include <kestrova/model/PinState.h>
#include <kestrova/platform/Values.h>

namespace kestrova {

Peer Peer::fromJson(const Dictionary& json) {
  Peer peer;
  peer.id = text(json, "id", "");
  peer.displayName = text(json, "displayName", "");
  // A browser describes its device by an object; only its name is of use here.
  if (const auto* device = dictionary(json, "device"))
    peer.device = text(*device, "name", "");
  else
    peer.device = text(json, "device", "");
  peer.interactionId = text(json, "interactionId");
  if (const auto* metaData = dictionary(json, "metaData")) peer.metaData = *metaData;
  peer.mode = text(json, "mode", "");
  peer.agentId = text(json, "agentId");
  return peer;
}

void separateAgentMarkers(Dictionary& data) {
  const auto* original = dictionary(data, "metaData");
  if (!original) return;
  Dictionary metaData = *original;
  const auto agentId = text(metaData, "agent_id");
  for (const char* marker : {"enableAgentEvents", "agent_id", "agent_name", "is_kestrova_agent"})
    metaData.erase(marker);
  if (agentId) data["agentId"] = *agentId;
  data["metaData"] = std::move(metaData);
}

std::vector<Peer> getParticipants(const Dictionary& joinResponse) {
  std::vector<Peer> peers;
  const auto* data = dictionary(joinResponse, "data");
  const auto* entries = data ? list(*data, "peers") : nullptr;
  if (!entries) return peers;
  for (const auto& entry : *entries) {
    if (!entry.is_object()) continue;
    Dictionary json = entry.get_object();
    separateAgentMarkers(json);
    peers.push_back(Peer::fromJson(json));
  }
  return peers;
}

ParticipantPinState ParticipantPinState::fromJson(const Dictionary& json) {
  return {boolean(json, "cam"), boolean(json, "share")};
}

Dictionary ParticipantPinState::toJson() const {
  Dictionary json;
  if (cam) json["cam"] = *cam;
  if (share) json["share"] = *share;
  return json;
}

}  // namespace kestrova
