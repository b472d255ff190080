#pragma once

#include <kestrova/session/AICharacter.h>
#include <kestrova/session/Meeting.h>

#include <functional>
#include <vector>

namespace kestrova::test {

/// One operation, and what becomes of it.
struct Control {
  const char* method;
  const char* request;
  const char* body;
  std::function<void(Meeting&)> call;
  const char* span;
  const char* done;
  const char* cause;
  const char* failed = nullptr;
  int error = 0;  ///< none is reported
};

/// All of them.
inline std::vector<Control> controls() {
  const auto aida = [](Meeting& meeting) {
    return meeting.createCharacter({.characterId = "aida", .characterMode = "autoPilot"});
  };
  return {
      {"startRecording", "startRecording",
       R"({"webhookUrl":"https://hook/x","awsDirPath":"a/b","config":{"layout":{"type":"SPOTLIGHT",)"
       R"("priority":"PIN","gridSize":9},"theme":"DARK","mode":"audio","quality":"med",)"
       R"("orientation":"portrait"},"transcription":{"enabled":true,"summary":{"enabled":true,)"
       R"("prompt":"short"}}})",
       [](Meeting& meeting) {
         meeting.startRecording(
             {.webhookUrl = "https://hook/x",
              .awsDirPath = "a/b",
              .config = RecordingConfig{.layout = {.type = ConfigLayoutGrid::SPOTLIGHT,
                                                   .priority = ConfigLayoutPriority::PIN,
                                                   .gridSize = 9},
                                        .theme = ConfigTheme::DARK,
                                        .mode = ConfigMode::audio,
                                        .quality = ConfigQuality::med,
                                        .orientation = ConfigOrientation::portrait},
              .transcription = PostTranscriptionConfig{true, SummaryConfig{true, "short"}}});
       },
       "Start Recording Requested", "Start recording request sent successfully",
       "Error in startRecording() -> ", "Start recording failed.", 4011},
      {"startRecording", "startRecording", "{}", [](Meeting& meeting) { meeting.startRecording(); },
       "Start Recording Requested", "Start recording request sent successfully",
       "Error in startRecording() -> ", "Start recording failed.", 4011},
      {"stopRecording", "stopRecording", "{}", [](Meeting& meeting) { meeting.stopRecording(); },
       "Stop Recording Requested", "Stop recording request sent successfully",
       "Error in stopRecording() -> ", "Stop recording failed.", 4012},
      {"startLivestream", "startLivestream",
       R"({"outputs":[{"url":"rtmp://a","streamKey":"k1"},{"url":"rtmp://b","streamKey":"k2"}],)"
       R"("config":{"layout":{"type":"GRID","priority":"SPEAKER","gridSize":4},"theme":"DEFAULT",)"
       R"("recording":{"enabled":true}}})",
       [](Meeting& meeting) {
         meeting.startLivestream({{"rtmp://a", "k1"}, {"rtmp://b", "k2"}},
                                 LivestreamConfig{.recording = LivestreamRecordingConfig{true}});
       },
       "Start RTMP Livestreaming Requested", "Start RTMP Livestreaming request sent successfully",
       "Error in startLivestream() -> ", "Start RTMP live stream failed", 4013},
      {"stopLivestream", "stopLivestream", "{}", [](Meeting& meeting) { meeting.stopLivestream(); },
       "Stop RTMP Livestreaming Requested", "Stop RTMP Livestreaming request sent successfully",
       "Error in stopLivestream() -> ", "Stop RTMP live stream failed", 4014},
      {"startHLS", "startHls",
       R"({"config":{"layout":{"type":"SIDEBAR","priority":"SPEAKER","gridSize":4},)"
       R"("theme":"LIGHT","mode":"video-and-audio","quality":"low","orientation":"landscape"},)"
       R"("transcription":{"enabled":false}})",
       [](Meeting& meeting) {
         meeting.startHLS(HLSConfig{.layout = {.type = ConfigLayoutGrid::SIDEBAR},
                                    .theme = ConfigTheme::LIGHT,
                                    .quality = ConfigQuality::low},
                          PostTranscriptionConfig{});
       },
       "Start HLS Requested", "Start HLS streaming request sent successfully",
       "Error in startHLS() -> ", "Start HLS failed.", 4016},
      {"stopHLS", "stopHls", "{}", [](Meeting& meeting) { meeting.stopHLS(); },
       "Stop HLS Requested", "Stop HLS streaming request sent successfully",
       "Error in stopHLS() -> ", "Stop HLS failed.", 4017},
      {"startTranscription", "startTranscription",
       R"({"config":{"webHookUrl":"https://hook","summary":{"enabled":true,"prompt":"p"}}})",
       [](Meeting& meeting) {
         meeting.startTranscription(TranscriptionConfig{"https://hook", SummaryConfig{true, "p"}});
       },
       "Start Transcription Requested", "Start transcription requested successfully",
       "Error in startTranscription() -> ", "Start transcription failed.", 4031},
      {"stopTranscription", "stopTranscription", "{}",
       [](Meeting& meeting) { meeting.stopTranscription(); }, "Stop Transcription Requested",
       "Stop transcription requested successfully", "Error in stopTranscription() -> ",
       "Stop transcription failed.", 4032},
      {"startWhiteboard", "startWhiteboard", R"({"version":"v2"})",
       [](Meeting& meeting) { meeting.startWhiteboard(); }, "Start Whiteboard Requested",
       "Whiteboard start request sent successfully", "Error in startWhiteboard() -> ",
       "Start whiteboard failed.", 4054},
      {"stopWhiteboard", "stopWhiteboard", "{}", [](Meeting& meeting) { meeting.stopWhiteboard(); },
       "Stop Whiteboard Requested", "Whiteboard stop request sent successfully",
       "Error in stopWhiteboard() -> ", "Stop whiteboard failed.", 4055},
      {"pauseAllStreams", "pauseAllConsumers", R"({"kind":"all"})",
       [](Meeting& meeting) { meeting.pauseAllStreams(); }, "Pause All all Stream Requested.",
       "All Media Streams paused successfully.", "Error in pauseAllStreams() -> ", nullptr, 4057},
      {"resumeAllStreams", "resumeAllConsumers", R"({"kind":"share"})",
       [](Meeting& meeting) { meeting.resumeAllStreams("share"); },
       "Resume All share Stream Requested.", "All Share Streams resumed successfully.",
       "Error in resumeAllStreams() -> ", nullptr, 4058},
      {"enableAdaptiveSubscription", "enableAdaptiveSubscription", "{}",
       [](Meeting& meeting) { meeting.enableAdaptiveSubscription(); },
       "Enable Adaptive Subscription Requested",
       "Adaptive subscription enable request sent successfully.",
       "Error in enableAdaptiveSubscription() -> ", "Enable adaptive subscription failed.", 4048},
      {"disableAdaptiveSubscription", "disableAdaptiveSubscription", "{}",
       [](Meeting& meeting) { meeting.disableAdaptiveSubscription(); },
       "Disable Adaptive Subscription Requested",
       "Adaptive subscription disable request sent successfully.",
       "Error in disableAdaptiveSubscription() -> ", "Disable adaptive subscription failed.", 4049},
      {"switchTo", "switchToMeeting",
       R"({"meetingId":"other","secret":"t","participantId":"me","mode":"RECV_ONLY"})",
       [](Meeting& meeting) { meeting.switchTo("other", "t", Mode::RECV_ONLY); },
       "Requesting to switch meeting", "Meeting switch request sent successfully",
       "Error in switchTo() -> ", nullptr, 4076},
      {"requestMediaRelay", "mediaRelayRequestSent",
       R"({"meetingId":"other","token":"t","kinds":["audio","video"]})",
       [](Meeting& meeting) {
         meeting.requestMediaRelay("other", "t", std::vector<std::string>{"audio", "video"});
       },
       "Requesting to send media relay", "Media relay request sent successfully",
       "Error in requestMediaRelay() -> ", nullptr, 4078},
      {"handleRelayRequestResponse", "respondToMediaRelayRequest",
       R"({"peerId":"eve","meetingId":"other","decision":"accepted"})",
       [](Meeting& meeting) { meeting.handleRelayRequestResponse("accepted", "eve", "other"); },
       "Requesting to send response of media relay request",
       "Response of media relay request sent successfully",
       "Error in handleRelayRequestResponse() -> ", nullptr, 4084},
      {"stopMediaRelay", "mediaRelayRequestStop", R"({"meetingId":"other"})",
       [](Meeting& meeting) { meeting.stopMediaRelay("other"); }, "Requesting to stop media relay",
       "Media relay stop request sent successfully", "Error in stopMediaRelay() -> ", nullptr,
       4079},
      {"enableRelayMedia", "enableRelayMedia", R"({"meetingId":"other","kind":"video"})",
       [](Meeting& meeting) { meeting.enableRelayMedia("other", "video"); },
       "Requesting to enable relay media", "Relay media enable request sent successfully",
       "Error in enableRelayMedia() -> "},
      {"disableRelayMedia", "disableRelayMedia", R"({"meetingId":"other","kind":"audio"})",
       [](Meeting& meeting) { meeting.disableRelayMedia("other", "audio"); },
       "Requesting to disable relay media", "Relay media disable request sent successfully",
       "Error in disableRelayMedia() -> "},
      {"join", "joinCharacter", R"({"characterId":"aida","characterMode":"autoPilot"})",
       [aida](Meeting& meeting) { aida(meeting)->join(); }, "Requesting to join character",
       "Character join request sent successfully", "Error in character's join() -> ", nullptr,
       4033},
      {"leave", "leaveCharacter", R"({"characterId":"aida"})",
       [aida](Meeting& meeting) { aida(meeting)->leave(); }, "Requesting to remove character",
       "Character leave request sent successfully", "Error in character's leave() -> ", nullptr,
       4034},
      {"sendMessage", "sendCharacterMessage", R"({"text":"hi","characterId":"aida"})",
       [aida](Meeting& meeting) { aida(meeting)->sendMessage("hi"); },
       "Requesting to send message to character", "Character message sent successfully",
       "Error in character's sendMessage() -> "},
      {"interrupt", "interruptCharacter", R"({"characterId":"aida"})",
       [aida](Meeting& meeting) { aida(meeting)->interrupt(); },
       "Requesting to interrupt character", "Character interrupt request sent successfully",
       "Error in character's interrupt() -> "},
  };
}

}  // namespace kestrova::test
