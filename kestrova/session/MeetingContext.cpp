#include <kestrova/session/MeetingContext.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

MeetingContext::MeetingContext(MeetingSettings meetingSettings, std::shared_ptr<Participant> local,
                               std::shared_ptr<MediaConfigStore> configStore,
                               std::shared_ptr<CustomRTCMediaStream> customVideo,
                               std::shared_ptr<CustomRTCMediaStream> customAudio)
    : settings(std::move(meetingSettings)),
      localParticipant(std::move(local)),
      mediaConfigStore(std::move(configStore)),
      listeners(std::make_shared<MeetingMulticastDelegate>()),
      _id(settings.id),
      _mode(settings.mode),
      _customVideoMediaStream(std::move(customVideo)),
      _customAudioMediaStream(std::move(customAudio)) {}

void MeetingContext::setRoomClientDelegate(std::weak_ptr<RoomClientDelegate> delegate) {
  std::scoped_lock held(_roomClientLock);
  _roomClientDelegate = std::move(delegate);
}

std::shared_ptr<RoomClient> MeetingContext::roomClient() {
  std::scoped_lock held(_roomClientLock);
  if (_roomClient) return _roomClient;
  _roomClient =
      RoomClient::make({.meeting = {.id = id(),
                                    .localParticipantId = localParticipant->id(),
                                    .localParticipantName = localParticipant->displayName(),
                                    .mode = std::string(wireText(mode())),
                                    .accessToken = settings.accessToken,
                                    .metaData = settings.metaData,
                                    .micEnabled = settings.micEnabled,
                                    .webcamEnabled = settings.webcamEnabled},
                        .customVideoMediaStream = customVideoMediaStream(),
                        .customAudioMediaStream = customAudioMediaStream(),
                        .multiStream = settings.multiStream,
                        .mode = mode(),
                        .preferredProtocol = settings.preferredProtocol,
                        .signalingBaseUrl = settings.signalingBaseUrl});
  _roomClient->setDelegate(_roomClientDelegate);
  return _roomClient;
}

std::shared_ptr<RoomClient> MeetingContext::existingRoomClient() {
  std::scoped_lock held(_roomClientLock);
  return _roomClient;
}

bool MeetingContext::joined() {
  const auto client = existingRoomClient();
  return client && client->joined();
}

std::string MeetingContext::id() const {
  std::scoped_lock held(_idLock);
  return _id;
}

void MeetingContext::setId(std::string id) {
  std::scoped_lock held(_idLock);
  _id = std::move(id);
}

Mode MeetingContext::mode() const {
  std::scoped_lock held(_idLock);
  return _mode;
}

void MeetingContext::setMode(Mode mode) {
  std::scoped_lock held(_idLock);
  _mode = mode;
}

std::shared_ptr<CustomRTCMediaStream> MeetingContext::customVideoMediaStream() const {
  std::scoped_lock held(_customStreamLock);
  return _customVideoMediaStream;
}

std::shared_ptr<CustomRTCMediaStream> MeetingContext::customAudioMediaStream() const {
  std::scoped_lock held(_customStreamLock);
  return _customAudioMediaStream;
}

void MeetingContext::setCustomVideoMediaStream(std::shared_ptr<CustomRTCMediaStream> stream) {
  std::scoped_lock held(_customStreamLock);
  _customVideoMediaStream.swap(stream);
}

void MeetingContext::setCustomAudioMediaStream(std::shared_ptr<CustomRTCMediaStream> stream) {
  std::scoped_lock held(_customStreamLock);
  _customAudioMediaStream.swap(stream);
}

void MeetingContext::forgetCustomStreams() {
  std::scoped_lock held(_customStreamLock);
  _customVideoMediaStream.reset();
  _customAudioMediaStream.reset();
}

void MeetingContext::emit(std::function<void(MeetingMulticastDelegate&)> event) {
  MainQueue::shared().async([weak = weak_from_this(), event = std::move(event)] {
    if (const auto self = weak.lock()) event(*self->listeners);
  });
}

void MeetingContext::onError(const KestrovaError& error) {
  emit([error](MeetingMulticastDelegate& listener) {
    traceError("Emitting ERROR Event",
               {{"error", [&] {
                   return "Error encountered with code: " + std::to_string(error.rawValue()) +
                          " and message: " + error.message();
                 }}});
    listener.onError(error);
  });
}

}  // namespace kestrova
