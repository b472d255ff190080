#include <kestrova/media/EncodingPresets.h>
#include <kestrova/media/MediaType.h>
#include <kestrova/media/PushResult.h>
#include <kestrova/model/CharacterTypes.h>
#include <kestrova/model/LinkCondition.h>
#include <kestrova/model/Peer.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/model/ServiceStates.h>
#include <kestrova/session/Kestrova.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace kestrova {
namespace {

/// Every case from `first` to `last` has a text of its own; gives those of the two ends.
template <class Enum>
std::pair<std::string, std::string> ends(Enum first, Enum last) {
  std::set<std::string> seen;
  for (int i = static_cast<int>(first); i <= static_cast<int>(last); ++i)
    EXPECT_TRUE(seen.emplace(text(static_cast<Enum>(i))).second) << text(static_cast<Enum>(i));
  EXPECT_FALSE(seen.contains(""));
  return {std::string(text(first)), std::string(text(last))};
}

using Ends = std::pair<std::string, std::string>;

TEST(TextsTest, everyCaseThatAnApplicationMeetsHasItsText) {
  EXPECT_EQ(ends(Mode::CONFERENCE, Mode::RECV_ONLY), (Ends{"CONFERENCE", "RECV_ONLY"}));
  EXPECT_EQ(ends(MeetingState::CONNECTING, MeetingState::FAILED), (Ends{"CONNECTING", "FAILED"}));
  EXPECT_EQ(ends(PreferredProtocol::UDP_OVER_TCP, PreferredProtocol::TCP_ONLY),
            (Ends{"UDP_OVER_TCP", "TCP_ONLY"}));
  EXPECT_EQ(ends(HLSState::HLS_STARTED, HLSState::HLS_PLAYABLE),
            (Ends{"HLS_STARTED", "HLS_PLAYABLE"}));
  EXPECT_EQ(ends(RecordingState::RECORDING_STARTING, RecordingState::RECORDING_STOPPED),
            (Ends{"RECORDING_STARTING", "RECORDING_STOPPED"}));
  EXPECT_EQ(ends(LiveStreamState::LIVESTREAM_STARTED, LiveStreamState::LIVESTREAM_STOPPING),
            (Ends{"LIVESTREAM_STARTED", "LIVESTREAM_STOPPING"}));
  EXPECT_EQ(
      ends(TranscriptionState::TRANSCRIPTION_STARTING, TranscriptionState::TRANSCRIPTION_STOPPED),
      (Ends{"TRANSCRIPTION_STARTING", "TRANSCRIPTION_STOPPED"}));
  EXPECT_EQ(ends(StreamState::FREEZE_DETECTED, StreamState::STUCK),
            (Ends{"FREEZE_DETECTED", "STUCK"}));
  EXPECT_EQ(ends(QualityLimitationType::CPU, QualityLimitationType::CONGESTION),
            (Ends{"CPU", "CONGESTION"}));
  EXPECT_EQ(ends(QualityLimitationState::DETECTED, QualityLimitationState::RESOLVED),
            (Ends{"DETECTED", "RESOLVED"}));
  EXPECT_EQ(ends(AgentState::IDLE, AgentState::SPEAKING), (Ends{"IDLE", "SPEAKING"}));
  EXPECT_EQ(ends(CharacterState::characterSpeaking, CharacterState::characterListening),
            (Ends{"characterSpeaking", "characterListening"}));
  EXPECT_EQ(ends(PinType::SHARE_AND_CAM, PinType::SHARE), (Ends{"SHARE_AND_CAM", "SHARE"}));
  EXPECT_EQ(ends(MediaKind::audio, MediaKind::video), (Ends{"audio", "video"}));
  EXPECT_EQ(ends(MediaType::audio, MediaType::share), (Ends{"audio", "share"}));
  EXPECT_EQ(ends(E2EEState::EncryptionSuccess, E2EEState::InternalError),
            (Ends{"EncryptionSuccess", "InternalError"}));
  EXPECT_EQ(ends(CameraPosition::back, CameraPosition::front), (Ends{"back", "front"}));
  EXPECT_EQ(ends(AuthorisationStatus::notDetermined, AuthorisationStatus::restricted),
            (Ends{"notDetermined", "restricted"}));
  EXPECT_EQ(ends(PixelFormat::i420, PixelFormat::bgra), (Ends{"i420", "bgra"}));
  EXPECT_EQ(ends(VideoCodec::VP8, VideoCodec::AV1), (Ends{"VP8", "AV1"}));
  EXPECT_EQ(ends(VideoQuality::high, VideoQuality::low), (Ends{"high", "low"}));
  EXPECT_EQ(ends(BitrateMode::HIGH_QUALITY, BitrateMode::BANDWIDTH_OPTIMIZED),
            (Ends{"HIGH_QUALITY", "BANDWIDTH_OPTIMIZED"}));
  EXPECT_EQ(ends(EncodingLayer::MAX_LAYER_2, EncodingLayer::MAX_LAYER_3),
            (Ends{"MAX_LAYER_2", "MAX_LAYER_3"}));
  EXPECT_EQ(code(EncodingLayer::MAX_LAYER_3), 3);
  EXPECT_EQ(ends(LogLevel::none, LogLevel::all), (Ends{"none", "all"}));
  EXPECT_EQ(ends(RoomClientError::deviceNotLoaded, RoomClientError::keyEncodingFailed),
            (Ends{"deviceNotLoaded", "keyEncodingFailed"}));
  ends(PushResult::accepted, PushResult::queueFull);
  static_assert(text(MeetingState::RECONNECTING) == "RECONNECTING", "also before the program runs");
}

TEST(TextsTest, reasonsAndErrorsHaveANumberToo) {
  EXPECT_EQ(code(LeaveReason::manualLeaveCalled), 1101);
  EXPECT_EQ(text(LeaveReason::manualLeaveCalled), "Participant manually left the meeting");
  EXPECT_EQ(code(KestrovaError::INVALID_TOKEN), 4002);
}

}  // namespace
}  // namespace kestrova
