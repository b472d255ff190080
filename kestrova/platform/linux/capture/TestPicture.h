#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

/// A moving picture with a running clock, for people and for programs.
///
/// Colour bars, a grey ramp and a label stand still; a box wanders; the time and the number of the
/// picture are written in digits; and a strip along the lower edge carries the time as black and
/// white blocks with a checksum, which `readTestPictureClock` finds again after scaling and
/// compression. One thread at a time.
class TestPicture {
public:
  /// The smallest picture whose strip can be read back.
  static constexpr int kSmallestWidth = 104;
  static constexpr int kSmallestHeight = 48;

  TestPicture(int width, int height, std::string_view label);
  int width() const { return _width; }
  int height() const { return _height; }
  /// \param picture must measure `width()` by `height()`
  void draw(I420Buffer& picture, std::int64_t timeMs, std::int64_t frameNumber) const;

private:
  int _width;
  int _height;
  I420Buffer _background;
};

/// Draws one picture from nothing; a stream of them is cheaper with a `TestPicture`.
void drawTestPicture(I420Buffer& picture, std::int64_t timeMs, std::int64_t frameNumber,
                     std::string_view label);

/// The time that a test picture shows, in milliseconds; nothing if it is none or is too damaged.
/// Times from 0 to 2^44 - 1 (the year 2527) can be carried.
std::optional<std::int64_t> readTestPictureClock(const I420View& picture);

}  // namespace kestrova
