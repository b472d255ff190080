#pragma once

#include <kestrova/platform/linux/segmentation/Flatbuffer.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrova::segmentation {

/// The kinds of operation that occur, by their numbers in the file format (TensorFlow Lite).
enum class Kind {
  add = 0,
  averagePool = 1,
  convolution = 3,
  depthwiseConvolution = 4,
  dequantize = 6,
  logistic = 14,
  multiply = 18,
  relu = 19,
  resizeBilinear = 23,
  custom = 32,  // a transposed convolution with a bias; there is no other
  mean = 40,
  hardSwish = 117,
};

struct Operation {
  Kind kind{};
  std::vector<std::int32_t> inputs;
  std::vector<std::int32_t> outputs;
  flatbuffer::Table options;
  flatbuffer::Bytes customOptions;
};

struct Tensor {
  std::vector<std::size_t> shape;
  flatbuffer::Bytes content;  ///< of a constant, as it lies in the file
};

/// A network as its file describes it; refers to the file's bytes.
struct Model {
  std::vector<Tensor> tensors;
  std::vector<Operation> operations;
  std::int32_t input = 0;
  std::int32_t output = 0;

  const Tensor& tensor(std::int32_t index) const {
    return tensors.at(static_cast<std::size_t>(index));
  }
};

/// \throws flatbuffer::Damaged
Model readModel(flatbuffer::Bytes file);

}  // namespace kestrova::segmentation
