#pragma once

#include <kestrova/platform/VideoFrame.h>

#include "Ending.h"
#include "Options.h"
#include <memory>
#include <optional>
#include <stdexcept>

namespace kestrova::broadcast {

/// Why there is nothing to send, or no more, for people.
struct SourceFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// The user said no.
struct SourceRefused : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// What was shared has been closed: the end of the share, and no failure.
struct SourceClosed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What the screen shows. The view is valid until the next call.
struct Picture {
  BGRAView view;
  bool isNew = true;  ///< whether it may differ from the one before
};

/// Where the pictures come from. One thread.
class ScreenSource {
public:
  virtual ~ScreenSource() = default;
  /// What is to be seen now; nothing as long as there was nothing yet.
  /// \throws SourceFailure, SourceClosed
  virtual std::optional<Picture> take() = 0;
};

std::unique_ptr<ScreenSource> makePatternSource(int width, int height);
/// \throws SourceFailure
std::unique_ptr<ScreenSource> makeX11Source(const Options& options);
/// Asks the user by the desktop's dialog. \throws SourceFailure, SourceRefused, Ending::Reached
std::unique_ptr<ScreenSource> makePortalSource(const Options& options, const Ending& ending);

}  // namespace kestrova::broadcast
