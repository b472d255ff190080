#pragma once

#include <kestrova/platform/NotificationCenter.h>
#include <kestrova/platform/PixelBuffer.h>
#include <kestrova/platform/ScreenShareConfig.h>
#include <kestrova/platform/UnixSockets.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kestrova {

/// The keys of what an application declares about sharing its screen.
inline constexpr std::string_view appGroupIdentifierKey = "RTCAppGroupIdentifier";
inline constexpr std::string_view screenSharingExtensionKey = "RTCScreenSharingExtension";

/// Decodes encoded still pictures. One thread at a time.
class PictureRenderer {
public:
  virtual ~PictureRenderer() = default;
  /// Draws the picture in its own size from the upper left corner on; what doesn't fit is left out,
  /// what it doesn't cover is empty. False, with whatever was drawn by then, for what is no
  /// picture, is damaged, or is larger than any buffer can be.
  virtual bool render(std::span<const std::uint8_t> data, PixelBuffer& buffer) = 0;
};

/// How a program that sends the screen came to its end.
struct BroadcastEnd {
  /// `unknown` where the application itself has taken the exit code, such as by ignoring SIGCHLD.
  enum class Kind { finished, refused, failed, unknown };
  Kind kind = Kind::finished;
  /// For people; empty where nothing is known.
  std::string cause = {};
};

/// A program that sends the screen. Letting go of it ends the program, soon and in any case.
class BroadcastProgram {
public:
  virtual ~BroadcastProgram() = default;
};

/// What sharing a screen takes from the system. Thread-safe.
class ScreenSharing {
public:
  virtual ~ScreenSharing() = default;
  /// \throws std::invalid_argument for a group whose name is none of a directory, or too long
  virtual void configure(const ScreenShareConfig& config) = 0;
  /// What the application declared under that key; nothing for an empty value, too.
  virtual std::optional<std::string> infoValue(std::string_view key) = 0;
  /// The directory that the processes of a group share; it is made where there is none. Nothing
  /// when the name is none of a directory, or the directory can't be kept from other users.
  virtual std::optional<std::string> container(const std::string& groupIdentifier) = 0;
  /// A group that nobody else has, below the one of that name.
  virtual std::string ownGroup(const std::string& groupIdentifier) = 0;
  /// Removes the directory of a group, unless somebody still has something there.
  virtual void removeContainer(const std::string& groupIdentifier) = 0;

  virtual std::shared_ptr<UnixSockets> sockets() = 0;
  virtual std::unique_ptr<PictureRenderer> makeRenderer() = 0;
  /// Notifications among the processes of a group.
  virtual std::shared_ptr<CrossProcessNotifications> notifications() = 0;

  /// Asks the system, and thereby the user, to start sending the screen to that group.
  /// \param ended is called once, on a thread of the library, unless the program was let go of
  /// \returns nothing when there is no such program
  /// \throws std::system_error when it can't be started
  virtual std::unique_ptr<BroadcastProgram> showBroadcastPicker(
      const std::string& preferredExtension, const std::string& groupIdentifier,
      std::function<void(const BroadcastEnd& end)> ended) = 0;
};

}  // namespace kestrova
