#pragma once

#include <kestrova/platform/Segmentation.h>
#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace kestrova {

/// What a picture shows besides the person, out of focus. The person leaves no shine around them:
/// what is masked doesn't count. One thread at a time.
class BackgroundBlur {
public:
  /// Valid until the next call; nothing for a picture that is too small.
  std::optional<I420View> around(const I420View& picture, const MaskView& mask);

private:
  /// One plane at the size at which it is blurred.
  void blur(std::uint8_t* plane, int width, int height, int radius, const std::uint8_t* mask);
  void resize(const I420View& picture);

  std::optional<I420Buffer> _small;
  std::optional<I420Buffer> _large;
  std::vector<std::uint8_t> _mask;        // at the size of the luma
  std::vector<std::uint8_t> _chromaMask;  // and of the chroma
  std::vector<float> _weighted;
  std::vector<float> _weights;
  std::vector<float> _row;
};

}  // namespace kestrova
