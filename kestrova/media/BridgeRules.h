#pragma once

namespace kestrova {

/// In what the two bridges to the process that sends the screen differ. Empty texts are not told.
struct BridgeRules {
  /// Whether frames carry the time since the first of them, or else that of the wall clock.
  bool hasRelativeTime;
  /// Whether frames are turned as their orientation says.
  bool rotates;
  /// Whether a read length of 0 stays until the next message.
  bool keepsEmptyReadLength;
  /// Whether a header that is missing reads as 0, or else ends its frame.
  bool readsMissingAsZero;
  /// Whether the stream's events are lines for the developer, or else steps for whoever looks
  /// inside.
  bool logsStream;

  const char* bufferFailed;
  const char* readFailed;
  const char* pathTooLong;
  const char* bindFailed;
  const char* listenFailed;
  const char* acceptFailed;
  const char* streamOpened;
  const char* streamError;  ///< with the error behind it
  const char* streamEnded;
};

/// What a meeting uses.
inline constexpr BridgeRules mainBridge{.hasRelativeTime = false,
                                        .rotates = false,
                                        .keepsEmptyReadLength = false,
                                        .readsMissingAsZero = false,
                                        .logsStream = false,
                                        .bufferFailed = "",
                                        .readFailed = "",
                                        .pathTooLong = "",
                                        .bindFailed = "",
                                        .listenFailed = "",
                                        .acceptFailed = "",
                                        .streamOpened = "Server Stream opened successfully",
                                        .streamError = "Server Stream error encountered: ",
                                        .streamEnded = ""};

/// The older one, which heeds the orientation of what it shows.
inline constexpr BridgeRules olderBridge{.hasRelativeTime = true,
                                         .rotates = true,
                                         .keepsEmptyReadLength = true,
                                         .readsMissingAsZero = true,
                                         .logsStream = true,
                                         .bufferFailed = "CVPixelBufferCreate failed",
                                         .readFailed = "error reading bytes from stream",
                                         .pathTooLong = "failure: path too long",
                                         .bindFailed = "failure: socket binding",
                                         .listenFailed = "failure: socket listening",
                                         .acceptFailed = "failure accepting connection",
                                         .streamOpened = "server stream open completed",
                                         .streamError = "server stream error encountered: ",
                                         .streamEnded = "server stream end encountered"};

}  // namespace kestrova
