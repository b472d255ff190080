#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <vector>

namespace recording {

/// A YUV4MPEG2 file: pictures of one size, one after the other at a fixed rate. A picture of
/// another size or rotation is turned upright and scaled into the frame, on black.
class Y4mFile {
public:
  /// \param width \param height even \throws std::runtime_error when the file can't be written
  Y4mFile(const std::filesystem::path& path, int width, int height, int fps);
  /// How many pictures there are.
  std::uint64_t length() const { return _length; }

  /// Puts `frame` in place of the picture that `repeatTo` writes; black at first.
  void draw(const kestrova::VideoFrame& frame);
  /// Writes the present picture until there are `length`. \throws std::runtime_error
  void repeatTo(std::uint64_t length);

private:
  struct Plane {
    std::uint8_t* to;
    int width, height;
    const std::uint8_t* from;
    int stride, fromWidth, fromHeight;
    std::uint8_t black;
  };
  static void scale(const Plane& plane, int rotation);

  const int _width;
  const int _height;
  const std::filesystem::path _path;
  std::ofstream _out;
  std::vector<std::uint8_t> _picture;
  std::uint64_t _length = 0;
};

}  // namespace recording
