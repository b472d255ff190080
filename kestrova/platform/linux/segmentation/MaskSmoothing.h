#pragma once

#include <kestrova/platform/Segmentation.h>

#include <cstdint>
#include <span>
#include <vector>

namespace kestrova::segmentation {

/// Makes masks of what the network says of one picture after the other: calm in time, without
/// lagging behind, and with a border that is neither frayed nor grey. One thread at a time.
class MaskSmoothing {
public:
  MaskSmoothing(int width, int height);
  /// \param network a value from 0 to 1 for each pixel
  MaskView take(std::span<const float> network);
  /// The next picture has nothing to do with those before.
  void forget() { _hasBefore = false; }

private:
  void follow(std::span<const float> network);
  void softenRows();
  void softenColumns();

  const int _width;
  const int _height;
  bool _hasBefore = false;
  std::vector<float> _calm;         // in time
  std::vector<std::uint8_t> _rows;  // softened along the rows
  std::vector<std::uint8_t> _mask;
};

}  // namespace kestrova::segmentation
