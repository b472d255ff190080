#pragma once

#include <kestrova/platform/linux/segmentation/Model.h>

#include <memory>
#include <span>

namespace kestrova::segmentation {

/// A network made ready to run on the calling thread. One thread at a time.
class Network {
public:
  /// \param model may go afterwards \throws std::runtime_error when it can't be run
  explicit Network(const Model& model);
  ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  int width() const { return _width; }
  int height() const { return _height; }
  /// Red, green and blue of each pixel from 0 to 1, row after row.
  std::span<float> input();
  /// From the input to one value a pixel, from 0 to 1, valid until the next run.
  /// \throws std::runtime_error
  std::span<const float> run();

private:
  struct State;
  std::unique_ptr<State> _state;
  int _width = 0;
  int _height = 0;
};

}  // namespace kestrova::segmentation
