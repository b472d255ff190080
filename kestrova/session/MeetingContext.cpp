#include <kestrova/session/Kestrova.h>
#include <kestrova/session/MeetingContext.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/replace.hpp>

#include <utility>
#include <vector>

namespace kestrova {

MeetingContext::MeetingContext(MeetingSettings meetingSettings, std::shared_ptr<Participant> local,
                               std::shared_ptr<MediaConfigStore> configStore,
                               std::shared_ptr<LocalSending> localSending)
    : settings(std::move(meetingSettings)),
      localParticipant(std::move(local)),
      mediaConfigStore(std::move(configStore)),
      sending(std::move(localSending)),
      _id(settings.id) {}

void MeetingContext::setRoomClientDelegate(std::weak_ptr<RoomClientDelegate> delegate) {
  std::scoped_lock held(_roomClientLock);
  _roomClientDelegate = std::move(delegate);
}

std::shared_ptr<RoomClient> MeetingContext::roomClient() {
  if (auto made = existingRoomClient()) return made;
  std::scoped_lock making(_roomClientInitLock);
  if (auto made = existingRoomClient()) return made;
  auto fresh =
      RoomClient::make({.meeting = {.id = id(),
                                    .localParticipantId = localParticipant->id(),
                                    .localParticipantName = localParticipant->displayName(),
                                    .mode = std::string(wireText(sending->mode())),
                                    .accessToken = settings.accessToken,
                                    .metaData = settings.metaData,
                                    .micEnabled = settings.micEnabled,
                                    .webcamEnabled = settings.webcamEnabled},
                        .sending = sending,
                        .connections = connections,
                        .multiStream = settings.multiStream,
                        .preferredProtocol = settings.preferredProtocol,
                        .signalingBaseUrl = settings.signalingBaseUrl});
  std::scoped_lock held(_roomClientLock);
  fresh->setDelegate(_roomClientDelegate);
  _roomClient = fresh;
  return fresh;
}

std::shared_ptr<RoomClient> MeetingContext::existingRoomClient() const {
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

void MeetingContext::setJoinedOn(const Connection& connection) {
  std::scoped_lock held(_idLock);
  _joinedOn = connection;
}

bool MeetingContext::isJoinedOn(const Connection& connection) const {
  std::scoped_lock held(_idLock);
  return _joinedOn == connection;
}

void MeetingContext::setId(std::string id) {
  std::scoped_lock held(_idLock);
  _id = std::move(id);
}

void MeetingContext::emit(Event event) {
  emit([] {}, std::move(event));
}

void MeetingContext::emit(std::function<void()> before, Event event) {
  MainQueue::shared().async(
      [weak = weak_from_this(), before = std::move(before), event = std::move(event)] {
        const auto self = weak.lock();
        if (!self) return;
        before();
        self->listeners.invoke(event);
      });
}

std::string MeetingContext::withoutToken(std::string text) const {
  std::vector<std::string> tokens{settings.accessToken};
  // Another one, since a move.
  if (const auto client = existingRoomClient()) tokens.push_back(client->requests()->accessToken());
  for (const auto& token : tokens)
    if (!token.empty()) boost::algorithm::replace_all(text, token, "[REDACTED]");
  return text;
}

void MeetingContext::onError(const KestrovaError& reported) {
  const auto error = reported.withCause(withoutToken(reported.cause()));
  const auto traceIt = [error] {
    const auto line = [&] {
      return "Error encountered with code: " + std::to_string(error.rawValue()) +
             " and message: " + error.message();
    };
    if (error.cause().empty()) return traceError("Emitting ERROR Event", {{"error", line}});
    traceError("Emitting ERROR Event", {{"error", line}, {"cause", error.cause()}});
  };
  emit(traceIt, [error](auto& listener) { listener.onError(error); });
}

}  // namespace kestrova
