#pragma once

#include <kestrova/platform/Platform.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrova::test {

/// What was asked of still pictures, in words; a file's text is its size, as in "8x4".
class ScriptedImaging final : public Imaging {
public:
  std::optional<Image> decode(std::string_view file) override;
  std::optional<Image> resize(const Image& image, int width, int height) override;
  std::optional<Image> render(const VideoFrameBuffer& frame) override;
  std::optional<Image> rotate(const Image& image, int degrees) override;
  std::optional<std::string> encodeJpeg(const Image& image, double quality) override;

  std::vector<std::string> asked;
  std::string fails;  ///< the operation that gives nothing
};

/// Finds people, composites, and notes of what.
struct ScriptedCompositing {
  struct Blend {
    const VideoFrameBuffer* input;
    std::shared_ptr<const Image> background;
    const I420Buffer* into;
  };
  std::vector<Blend> blends;
  std::string failure;  ///< of the next segmentations
  bool hasMask = true;
  bool canRender = true;
  std::string cannotBeMade;  ///< why there is no segmentation at all
  int made = 0;              ///< segmentations

  /// Has the process's platform use these, beside what it has.
  static std::shared_ptr<ScriptedCompositing> install(std::shared_ptr<Imaging> imaging);
};

}  // namespace kestrova::test
