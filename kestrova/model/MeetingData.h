#pragma once

#include <kestrova/model/MetaData.h>

#include <string>

namespace kestrova {

/// A meeting as the signalling side knows it; fixed for the life of a connection.
struct MeetingData {
  std::string id;
  std::string localParticipantId;
  std::string localParticipantName;
  std::string mode;
  std::string accessToken;
  MetaData metaData;
  bool micEnabled = false;
  bool webcamEnabled = false;
};

}  // namespace kestrova
