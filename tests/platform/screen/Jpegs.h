#pragma once

#include <turbojpeg.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestrova::test {

/// A JPEG of one colour.
inline std::string jpegOf(int width, int height, std::uint8_t blue, std::uint8_t green,
                          std::uint8_t red) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width * height) * 4);
  for (std::size_t i = 0; i < pixels.size(); i += 4) {
    pixels[i] = blue;
    pixels[i + 1] = green;
    pixels[i + 2] = red;
  }
  auto* encoder = ::tjInitCompress();
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  ::tjCompress2(encoder, pixels.data(), width, width * 4, height, TJPF_BGRX, &bytes, &size,
                TJSAMP_420, 90, 0);
  std::string jpeg(reinterpret_cast<const char*>(bytes), size);
  ::tjFree(bytes);
  ::tjDestroy(encoder);
  return jpeg;
}

/// The same, with a header that says another size.
inline std::string withSize(std::string jpeg, int width, int height) {
  for (std::size_t i = 0; i + 9 < jpeg.size(); ++i) {
    if (jpeg[i] != '\xff' || jpeg[i + 1] != '\xc0') continue;
    jpeg[i + 5] = static_cast<char>(height >> 8);
    jpeg[i + 6] = static_cast<char>(height);
    jpeg[i + 7] = static_cast<char>(width >> 8);
    jpeg[i + 8] = static_cast<char>(width);
    break;
  }
  return jpeg;
}

}  // namespace kestrova::test
