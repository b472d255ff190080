#pragma once

#include <kestrova/platform/Capture.h>

#include <chrono>
#include <memory>
#include <string>

namespace kestrova {

/// Reads a file's pictures one after the other. One thread at a time.
class PictureReader {
public:
  virtual ~PictureReader() = default;
  /// Reads what stands before the pictures; an empty text, or what is wrong with the file.
  virtual std::string open(const std::string& path) = 0;
  /// The pictures' size and rate. The rate is 0 where the file names none.
  virtual CaptureFormat format() const = 0;
  /// The time from one picture to the next; 0 where the file names none.
  virtual std::chrono::nanoseconds period() const = 0;
  /// Nothing at the end, which a cut-off last picture is too. Damaged pictures are passed over.
  virtual std::shared_ptr<const VideoFrameBuffer> next() = 0;
  /// Goes back to the first picture.
  virtual void rewind() = 0;
};

}  // namespace kestrova
