#pragma once

#include <array>
#include <cstddef>
#include <exception>
#include <string_view>

namespace kestrova {

/// Why an operation on media or keys failed.
enum class RoomClientError {
  deviceNotLoaded,
  alreadyJoined,
  producerNotFound,
  consumerNotFound,
  videoNotSupported,
  audioNotSupported,
  sendTransportNotCreated,
  receiveTransportNotCreated,
  couldNotCreateAudioProducer,
  couldNotCreateVideoProducer,
  couldNotStartConsumerStream,
  sharedKeyNotFound,
  sharedKeyIssue,
  keyEncodingFailed
};

/// The case's name, such as "deviceNotLoaded".
constexpr const char* name(RoomClientError error) {
  constexpr std::array<const char*, 14> names = {"deviceNotLoaded",
                                                 "alreadyJoined",
                                                 "producerNotFound",
                                                 "consumerNotFound",
                                                 "videoNotSupported",
                                                 "audioNotSupported",
                                                 "sendTransportNotCreated",
                                                 "receiveTransportNotCreated",
                                                 "couldNotCreateAudioProducer",
                                                 "couldNotCreateVideoProducer",
                                                 "couldNotStartConsumerStream",
                                                 "sharedKeyNotFound",
                                                 "sharedKeyIssue",
                                                 "keyEncodingFailed"};
  return names.at(static_cast<std::size_t>(error));
}

/// The case's name.
constexpr std::string_view text(RoomClientError error) {
  return name(error);
}

/// Thrown by the operations on media and keys that can fail; `what()` is the case's name.
class RoomClientFailure : public std::exception {
public:
  explicit RoomClientFailure(RoomClientError error) : _error(error) {}
  RoomClientError error() const noexcept { return _error; }
  const char* what() const noexcept override { return name(_error); }

private:
  RoomClientError _error;
};

}  // namespace kestrova
