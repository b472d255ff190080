#include <kestrova/platform/linux/capture/Font.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kestrova {
namespace {

// ---- drawing in I420 ---------------------------------------------------------------------------

struct Colour {
  std::uint8_t y;
  std::uint8_t u;
  std::uint8_t v;
};
constexpr Colour kWhite{235, 128, 128};
constexpr Colour kBlack{16, 128, 128};
/// BT.601 bars at three quarters: white, yellow, cyan, green, magenta, red, blue.
constexpr std::array kBars{Colour{180, 128, 128}, Colour{162, 44, 142}, Colour{131, 156, 44},
                           Colour{112, 72, 58},   Colour{84, 184, 198}, Colour{65, 100, 212},
                           Colour{35, 212, 114}};

struct Rectangle {
  int left;
  int top;
  int width;
  int height;
};

/// Writes into a picture; whatever lies outside is cut off.
class Canvas {
public:
  explicit Canvas(I420Buffer& picture) : _view(picture.i420()), _picture(picture) {}
  int width() const { return _view.width; }
  int height() const { return _view.height; }

  void fill(Rectangle area, Colour colour) {
    const int right = std::min(area.left + area.width, _view.width);
    const int bottom = std::min(area.top + area.height, _view.height);
    const int left = std::max(area.left, 0);
    const int top = std::max(area.top, 0);
    if (left >= right || top >= bottom) return;
    fillPlane(_picture.mutableY(), _view.strideY, left, top, right, bottom, colour.y);
    const int chromaRight = (right + 1) / 2;
    const int chromaBottom = (bottom + 1) / 2;
    fillPlane(_picture.mutableU(), _view.strideU, left / 2, top / 2, chromaRight, chromaBottom,
              colour.u);
    fillPlane(_picture.mutableV(), _view.strideV, left / 2, top / 2, chromaRight, chromaBottom,
              colour.v);
  }

  /// \param scale pixels for each dot of a character
  void write(std::string_view text, int left, int top, int scale, Colour colour) {
    for (const char character : text) {
      const auto& glyph = glyphOf(character);
      for (int row = 0; row < kGlyphHeight; ++row)
        for (int column = 0; column < kGlyphWidth; ++column)
          if (glyph[static_cast<std::size_t>(row)] >> (kGlyphWidth - 1 - column) & 1)
            fill({left + column * scale, top + row * scale, scale, scale}, colour);
      left += (kGlyphWidth + 1) * scale;
    }
  }

private:
  static void fillPlane(std::uint8_t* plane, int stride, int left, int top, int right, int bottom,
                        std::uint8_t value) {
    for (int row = top; row < bottom; ++row)
      std::memset(plane + static_cast<std::ptrdiff_t>(row) * stride + left, value,
                  static_cast<std::size_t>(right - left));
  }

  I420View _view;
  I420Buffer& _picture;
};

int textWidth(std::size_t characters, int scale) {
  return static_cast<int>(characters) * (kGlyphWidth + 1) * scale;
}

/// Dots as large as let `characters` fit into two thirds of the width.
int textScale(int width, std::size_t characters) {
  return std::max(1, width * 2 / 3 / textWidth(characters, 1));
}

// ---- the strip ---------------------------------------------------------------------------------

constexpr int kColumns = 26;
constexpr int kRows = 2;
constexpr int kTimeBits = 44;
constexpr int kCheckBits = kColumns * kRows - kTimeBits;
static_assert(kCheckBits == 8);
/// The strip takes the lowest sixth of the picture.
constexpr int kStripFraction = 6;
constexpr std::uint64_t kTimeMask = (std::uint64_t{1} << kTimeBits) - 1;
/// Mixes black and white evenly, so that the reader sees both whatever the time.
constexpr std::uint64_t kPattern = 0x5555555555555ULL;
/// White and black must differ by this much in brightness to be told apart with confidence.
constexpr int kLeastContrast = 60;

std::uint8_t checksum(std::uint64_t time) {
  // CRC-8, polynomial x^8 + x^2 + x + 1.
  unsigned crc = 0xff;
  for (int byte = 0; byte < 6; ++byte) {
    crc ^= static_cast<unsigned>(time >> (8 * byte) & 0xff);
    for (int bit = 0; bit < 8; ++bit) crc = crc & 0x80 ? (crc << 1 ^ 0x07) & 0xff : crc << 1;
  }
  return static_cast<std::uint8_t>(crc);
}

std::uint64_t encodeTime(std::int64_t timeMs) {
  const auto time = static_cast<std::uint64_t>(timeMs) & kTimeMask;
  return (time << kCheckBits | checksum(time)) ^ kPattern;
}

std::optional<std::int64_t> decodeTime(std::uint64_t bits) {
  bits ^= kPattern;
  const auto time = bits >> kCheckBits & kTimeMask;
  if (checksum(time) != (bits & 0xff)) return std::nullopt;
  return static_cast<std::int64_t>(time);
}

/// Where block `index` lies in a picture of any size.
Rectangle blockArea(int index, int width, int height) {
  const int column = index % kColumns;
  const int row = index / kColumns;
  const int stripTop = height - height / kStripFraction;
  const int stripHeight = height - stripTop;
  const int left = width * column / kColumns;
  const int top = stripTop + stripHeight * row / kRows;
  return {left, top, width * (column + 1) / kColumns - left,
          stripTop + stripHeight * (row + 1) / kRows - top};
}

int meanBrightness(const I420View& picture, Rectangle area) {
  // The middle: the edges bleed into each other.
  const Rectangle inner{area.left + area.width / 4, area.top + area.height / 4,
                        std::max(1, area.width / 2), std::max(1, area.height / 2)};
  int sum = 0;
  for (int row = inner.top; row < inner.top + inner.height; ++row)
    for (int column = inner.left; column < inner.left + inner.width; ++column)
      sum += picture.y[static_cast<std::ptrdiff_t>(row) * picture.strideY + column];
  return sum / (inner.width * inner.height);
}

// ---- the parts ---------------------------------------------------------------------------------

void drawBackground(Canvas& canvas, std::string_view label) {
  const int width = canvas.width();
  const int barBottom = canvas.height() * 5 / 8;
  const int bars = static_cast<int>(kBars.size());
  for (int i = 0; i < bars; ++i)
    canvas.fill({width * i / bars, 0, width / bars + 1, barBottom},
                kBars[static_cast<std::size_t>(i)]);
  constexpr int kSteps = 32;
  for (int i = 0; i < kSteps; ++i)
    canvas.fill({width * i / kSteps, barBottom, width / kSteps + 1, canvas.height() - barBottom},
                {static_cast<std::uint8_t>(16 + i * 219 / (kSteps - 1)), 128, 128});
  if (label.empty()) return;
  const int scale = std::max(1, textScale(width, std::max<std::size_t>(label.size(), 24)));
  const int left = (width - textWidth(label.size(), scale)) / 2;
  const int top = canvas.height() / 12;
  canvas.fill({left - scale, top - scale, textWidth(label.size(), scale) + scale,
               (kGlyphHeight + 2) * scale},
              kBlack);
  canvas.write(label, left, top, scale, kWhite);
}

void drawBox(Canvas& canvas, std::int64_t frameNumber) {
  const int size = std::max(4, canvas.height() / 8);
  const auto bounce = [&](std::int64_t steps, int room) {
    if (room <= 0) return 0;
    const auto place = steps % (2 * room);
    return static_cast<int>(place < room ? place : 2 * room - place);
  };
  const auto step = std::max(1, canvas.width() / 160);
  const int left = bounce(frameNumber * step, canvas.width() - size);
  const int top = bounce(frameNumber * step / 2, canvas.height() * 5 / 8 - size);
  canvas.fill({left, top, size, size}, kWhite);
  const int border = std::max(1, size / 8);
  canvas.fill({left + border, top + border, size - 2 * border, size - 2 * border}, {80, 90, 240});
}

void drawClock(Canvas& canvas, std::int64_t timeMs, std::int64_t frameNumber) {
  const auto seconds = timeMs / 1000;
  std::array<char, 64> text{};
  const int length =
      std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d #%06lld",
                    static_cast<int>(seconds / 3600 % 24), static_cast<int>(seconds / 60 % 60),
                    static_cast<int>(seconds % 60), static_cast<int>(timeMs % 1000),
                    static_cast<long long>(frameNumber % 1'000'000));
  const std::string_view shown(text.data(), static_cast<std::size_t>(length));
  const int scale = textScale(canvas.width(), shown.size());
  const int left = (canvas.width() - textWidth(shown.size(), scale)) / 2;
  const int top = canvas.height() * 3 / 8;
  canvas.fill({left - scale, top - scale, textWidth(shown.size(), scale) + scale,
               (kGlyphHeight + 2) * scale},
              kBlack);
  canvas.write(shown, left, top, scale, kWhite);
}

void drawStrip(Canvas& canvas, std::int64_t timeMs) {
  const auto bits = encodeTime(timeMs);
  for (int i = 0; i < kColumns * kRows; ++i) {
    const bool set = bits >> (kColumns * kRows - 1 - i) & 1;
    canvas.fill(blockArea(i, canvas.width(), canvas.height()), set ? kWhite : kBlack);
  }
}

void copyPicture(const I420Buffer& from, I420Buffer& to) {
  const auto view = from.i420();
  const auto chroma = static_cast<std::size_t>(view.strideU) * ((view.height + 1) / 2);
  std::memcpy(to.mutableY(), view.y, static_cast<std::size_t>(view.strideY) * view.height);
  std::memcpy(to.mutableU(), view.u, chroma);
  std::memcpy(to.mutableV(), view.v, chroma);
}

}  // namespace

TestPicture::TestPicture(int width, int height, std::string_view label)
    : _width(width), _height(height), _background(width, height) {
  Canvas canvas(_background);
  drawBackground(canvas, label);
}

void TestPicture::draw(I420Buffer& picture, std::int64_t timeMs, std::int64_t frameNumber) const {
  const auto time = std::max<std::int64_t>(timeMs, 0);
  copyPicture(_background, picture);
  Canvas canvas(picture);
  drawBox(canvas, std::max<std::int64_t>(frameNumber, 0));
  drawClock(canvas, time, std::max<std::int64_t>(frameNumber, 0));
  drawStrip(canvas, time);
}

void drawTestPicture(I420Buffer& picture, std::int64_t timeMs, std::int64_t frameNumber,
                     std::string_view label) {
  const auto view = picture.i420();
  TestPicture(view.width, view.height, label).draw(picture, timeMs, frameNumber);
}

std::optional<std::int64_t> readTestPictureClock(const I420View& picture) {
  if (!picture.y || picture.width < TestPicture::kSmallestWidth ||
      picture.height < TestPicture::kSmallestHeight)
    return std::nullopt;
  std::array<int, kColumns * kRows> means;
  for (int i = 0; i < kColumns * kRows; ++i)
    means[static_cast<std::size_t>(i)] =
        meanBrightness(picture, blockArea(i, picture.width, picture.height));
  const auto [darkest, brightest] = std::minmax_element(means.begin(), means.end());
  if (*brightest - *darkest < kLeastContrast) return std::nullopt;
  const int middle = (*brightest + *darkest) / 2;
  std::uint64_t bits = 0;
  for (const int mean : means) bits = bits << 1 | (mean > middle ? 1 : 0);
  return decodeTime(bits);
}

}  // namespace kestrova
