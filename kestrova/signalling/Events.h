#pragma once

#include <optional>
#include <string_view>

namespace kestrova {

// Each row: the case, and its text on the wire, letter for letter as the service spells it.

// clang-format off
#define KESTROVA_LOCAL_EVENTS(X) \
  X(getRouterRtpCapabilities, "getRouterRtpCapabilities") \
  X(createWebRtcTransport, "createWebRtcTransport") \
  X(connectWebRtcTransport, "connectWebRtcTransport") \
  X(join, "join") \
  X(closeRoom, "closeRoom") \
  X(definePeerLeftReason, "definePeerLeftReason") \
  X(produce, "produce") \
  X(closeProducer, "closeProducer") \
  X(startRecording, "startRecording") \
  X(stopRecording, "stopRecording") \
  X(startLivestream, "startLivestream") \
  X(stopLivestream, "stopLivestream") \
  X(enablePeerMic, "enablePeerMic") \
  X(disablePeerMic, "disablePeerMic") \
  X(enablePeerWebcam, "enablePeerWebcam") \
  X(disablePeerWebcam, "disablePeerWebcam") \
  X(removePeer, "removePeer") \
  X(pauseConsumer, "pauseConsumer") \
  X(resumeConsumer, "resumeConsumer") \
  X(setConsumerPreferredLayers, "setConsumerPreferredLayers") \
  X(startHls, "startHls") \
  X(stopHls, "stopHls") \
  X(pubsubPublish, "pubsubPublish") \
  X(pubsubSubscribe, "pubsubSubscribe") \
  X(pubsubUnsubscribe, "pubsubUnsubscribe") \
  X(changeMode, "changeMode") \
  X(participantModeChanged, "participant-mode-changed") \
  X(pinStateChanged, "pinStateChanged") \
  X(iceRestarted, "iceRestarted") \
  X(startTranscription, "startTranscription") \
  X(stopTranscription, "stopTranscription") \
  X(startWhiteboard, "startWhiteboard") \
  X(stopWhiteboard, "stopWhiteboard") \
  X(pauseAllConsumers, "pauseAllConsumers") \
  X(resumeAllConsumers, "resumeAllConsumers") \
  X(switchToMeeting, "switchToMeeting") \
  X(requestEntry, "requestEntry") \
  X(respondEntry, "respondEntry") \
  X(mediaRelayRequestSent, "mediaRelayRequestSent") \
  X(respondToMediaRelayRequest, "respondToMediaRelayRequest") \
  X(mediaRelayRequestStop, "mediaRelayRequestStop") \
  X(enableRelayMedia, "enableRelayMedia") \
  X(disableRelayMedia, "disableRelayMedia") \
  X(enableAdaptiveSubscription, "enableAdaptiveSubscription") \
  X(disableAdaptiveSubscription, "disableAdaptiveSubscription") \
  X(realtimeStoreSet, "realtimeStoreSet") \
  X(realtimeStoreGet, "realtimeStoreGet") \
  X(realtimeStoreObserve, "realtimeStoreObserve") \
  X(realtimeStoreStopObserve, "realtimeStoreStopObserve") \
  X(joinCharacter, "joinCharacter") \
  X(leaveCharacter, "leaveCharacter") \
  X(sendCharacterMessage, "sendCharacterMessage") \
  X(interruptCharacter, "interruptCharacter") \
  X(restartIce, "restartIce")

#define KESTROVA_REMOTE_EVENTS(X) \
  X(notification, "notification") \
  X(batchNotification, "batchNotification") \
  X(newPeer, "newPeer") \
  X(peerClosed, "peerClosed") \
  X(newConsumer, "newConsumer") \
  X(consumerClosed, "consumerClosed") \
  X(consumerResumed, "consumerResumed") \
  X(consumerPaused, "consumerPaused") \
  X(consumerLayersChanged, "consumerLayersChanged") \
  X(recordingStarted, "recordingStarted") \
  X(recordingStopped, "recordingStopped") \
  X(livestreamStarted, "livestreamStarted") \
  X(livestreamStopped, "livestreamStopped") \
  X(activeSpeaker, "activeSpeaker") \
  X(enableMic, "enableMic") \
  X(disableMic, "disableMic") \
  X(enableWebcam, "enableWebcam") \
  X(disableWebcam, "disableWebcam") \
  X(close, "close") \
  X(error, "error") \
  X(livestreamStateChanged, "livestreamStateChanged") \
  X(recordingStateChanged, "recordingStateChanged") \
  X(hlsStateChanged, "hlsStateChanged") \
  X(hlsPlayableStateChanged, "hlsPlayableStateChanged") \
  X(pinStateChanged, "pinStateChanged") \
  X(peerModeChanged, "peerModeChanged") \
  X(restartIce, "restartIce") \
  X(pubsubMessage, "pubsubMessage") \
  X(statsData, "statsData") \
  X(transcriptionStateChanged, "transcriptionStateChanged") \
  X(transcriptionText, "transcriptionText") \
  X(whiteboardStarted, "whiteboardStarted") \
  X(whiteboardStopped, "whiteboardStopped") \
  X(addCharacter, "addCharacter") \
  X(removeCharacter, "removeCharacter") \
  X(characterMessage, "characterMessage") \
  X(characterStateChanged, "characterStateChanged") \
  X(entryResponded, "entryResponded") \
  X(entryRequested, "entryRequested") \
  X(mediaRealyStarted, "mediaRealyStarted") \
  X(mediaRelayStopped, "mediaRelayStopped") \
  X(mediaRelayError, "mediaRelayError") \
  X(mediaRelayRequestResponse, "mediaRelayRequestResponse") \
  X(mediaRelayRequestReceived, "mediaRelayRequestReceived") \
  X(consumerResumedSubManager, "consumerResumedSubManager") \
  X(consumerPausedSubManager, "consumerPausedSubManager") \
  X(realtimeStoreValueChanged, "realtimeStoreValueChanged") \
  X(participantMediaStateChanged, "participantMediaStateChanged") \
  X(agentStateChanged, "agentStateChanged") \
  X(agentTranscript, "agentTranscript") \
  X(agentMetrics, "agentMetrics") \
  X(unsupportedCodecAdded, "unsupportedCodecAdded")
// clang-format on

#define KESTROVA_EVENT_CASE(id, text) id,
/// The requests that the client sends.
enum class LocalEvent { KESTROVA_LOCAL_EVENTS(KESTROVA_EVENT_CASE) };
/// The methods that the service pushes.
enum class RemoteEvent { KESTROVA_REMOTE_EVENTS(KESTROVA_EVENT_CASE) };
#undef KESTROVA_EVENT_CASE

std::string_view wireText(LocalEvent event);
std::string_view wireText(RemoteEvent event);
/// An exact comparison; nothing for a method that is not in the vocabulary.
std::optional<RemoteEvent> remoteEventFrom(std::string_view method);

}  // namespace kestrova
