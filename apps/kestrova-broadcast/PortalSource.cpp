#include "PipeWireStream.h"
#include "Portal.h"
#include "ScreenSource.h"
#include <algorithm>
#include <chrono>

namespace kestrova::broadcast {
namespace {

/// A stream that gives nothing for so long after its start never will: it has no picture, not even
/// of a screen that stands still.
constexpr auto longestStart = std::chrono::seconds(15);

BGRAView cropped(const BGRAView& picture, const Region& region) {
  const int x = std::min(region.x, picture.width - 1);
  const int y = std::min(region.y, picture.height - 1);
  return {.pixels = picture.pixels + static_cast<std::ptrdiff_t>(y) * picture.stride + x * 4,
          .stride = picture.stride,
          .width = std::min(region.width, picture.width - x),
          .height = std::min(region.height, picture.height - y)};
}

class PortalSource final : public ScreenSource {
public:
  PortalSource(const Options& options, const Ending& ending)
      : _region(options.region),
        _session(ending),
        _stream(_session.openPipeWireRemote(), _session.node(), options.fps) {}

  std::optional<Picture> take() override {
    const bool isNew = _stream.update();
    if (_session.isClosed() || _stream.hasEnded())
      throw SourceClosed("the desktop ended the share");
    auto view = _stream.picture();
    if (!view) {
      if (!_hasPicture && std::chrono::steady_clock::now() - _started > longestStart)
        throw SourceFailure("the desktop's stream has no picture");
      return std::nullopt;
    }
    _hasPicture = true;
    if (_region) view = cropped(*view, *_region);
    return Picture{.view = *view, .isNew = isNew};
  }

private:
  const std::optional<Region> _region;
  PortalSession _session;
  PipeWireStream _stream;
  const std::chrono::steady_clock::time_point _started = std::chrono::steady_clock::now();
  bool _hasPicture = false;
};

}  // namespace

std::unique_ptr<ScreenSource> makePortalSource(const Options& options, const Ending& ending) {
  return std::make_unique<PortalSource>(options, ending);
}

}  // namespace kestrova::broadcast
