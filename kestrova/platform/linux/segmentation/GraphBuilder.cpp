#include <kestrova/platform/linux/segmentation/GraphBuilder.h>

#include <bit>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace kestrova::segmentation {
namespace {

constexpr float unbounded = std::numeric_limits<float>::infinity();

/// An IEEE 754 number of 16 bits.
float fromHalf(std::uint16_t half) {
  const std::uint32_t sign = (half & 0x8000u) << 16;
  const std::uint32_t exponent = (half >> 10) & 0x1f;
  const std::uint32_t mantissa = half & 0x3ff;
  if (exponent == 0) {
    const float small = static_cast<float>(mantissa) / (1 << 24);
    return sign ? -small : small;
  }
  const std::uint32_t wide = exponent == 0x1f ? 0xff : exponent + 112;
  return std::bit_cast<float>(sign | wide << 23 | mantissa << 13);
}

class Builder {
public:
  explicit Builder(const Model& model)
      : _model(model),
        _ids(model.tensors.size(), XNN_INVALID_VALUE_ID),
        _constants(model.tensors.size()) {}
  Graph build();

private:
  // Fields of the operations' options, by their numbers in the format's schema.
  static constexpr int paddingField = 0, strideXField = 1, strideYField = 2;
  static constexpr int convolutionActivation = 3, depthwiseActivation = 4;
  static constexpr int halfPixelCentres = 3;

  struct Limits {
    float low = -unbounded;
    float high = unbounded;
  };
  static Limits limitsOf(std::int8_t activation);
  static std::int32_t at(const std::vector<std::int32_t>& list, std::size_t index);
  const std::vector<std::size_t>& shape(const Operation& operation, std::size_t input) const {
    return _model.tensor(at(operation.inputs, input)).shape;
  }
  std::uint32_t in(const Operation& operation, std::size_t index) {
    return idOf(at(operation.inputs, index));
  }
  std::uint32_t out(const Operation& operation) { return idOf(at(operation.outputs, 0)); }

  std::uint32_t idOf(std::int32_t tensor);
  void add(const Operation& operation);
  void widen(const Operation& operation);
  void convolve(const Operation& operation);
  void convolveDepthwise(const Operation& operation);
  void convolveTransposed(const Operation& operation);
  void resize(const Operation& operation);

  const Model& _model;
  Graph _graph;
  std::vector<std::uint32_t> _ids;       // of tensors, for XNNPACK
  std::vector<const float*> _constants;  // by tensor
};

Builder::Limits Builder::limitsOf(std::int8_t activation) {
  constexpr std::int8_t none = 0, relu = 1, relu6 = 3;
  if (activation == none) return {};
  if (activation == relu) return {.low = 0};
  if (activation == relu6) return {.low = 0, .high = 6};
  throw std::runtime_error("the network has an activation that isn't known here");
}

std::int32_t Builder::at(const std::vector<std::int32_t>& list, std::size_t index) {
  if (index >= list.size()) throw flatbuffer::Damaged();
  return list[index];
}

std::uint32_t Builder::idOf(std::int32_t tensor) {
  auto& id = _ids.at(static_cast<std::size_t>(tensor));
  if (id != XNN_INVALID_VALUE_ID) return id;
  std::uint32_t external = XNN_INVALID_VALUE_ID;
  std::uint32_t flags = 0;
  if (tensor == _model.input) {
    external = Graph::inputId;
    flags = XNN_VALUE_FLAG_EXTERNAL_INPUT;
  } else if (tensor == _model.output) {
    external = Graph::outputId;
    flags = XNN_VALUE_FLAG_EXTERNAL_OUTPUT;
  }
  const auto& sides = _model.tensor(tensor).shape;
  check(xnn_define_tensor_value(_graph.subgraph.get(), xnn_datatype_fp32, sides.size(),
                                sides.data(), _constants[static_cast<std::size_t>(tensor)],
                                external, flags, &id));
  return id;
}

/// A constant of half precision, which XNNPACK wants in single.
void Builder::widen(const Operation& operation) {
  const auto content = _model.tensor(at(operation.inputs, 0)).content;
  const auto target = at(operation.outputs, 0);
  std::size_t size = 1;
  for (const auto side : _model.tensor(target).shape) size *= side;
  if (content.size() / sizeof(std::uint16_t) != size) throw flatbuffer::Damaged();
  auto& wide = _graph.weights.emplace_back();
  for (std::size_t i = 0; i < size; ++i)
    wide.push_back(fromHalf(flatbuffer::read<std::uint16_t>(content, i * sizeof(std::uint16_t))));
  _constants.at(static_cast<std::size_t>(target)) = wide.data();
}

void Builder::convolve(const Operation& operation) {
  const auto& filter = shape(operation, 1);
  const auto& options = operation.options;
  const auto limits = limitsOf(options.value<std::int8_t>(convolutionActivation, 0));
  const bool isSame = options.value<std::int8_t>(paddingField, 0) == 0;
  const auto height = static_cast<std::uint32_t>(filter.at(1));
  const auto width = static_cast<std::uint32_t>(filter.at(2));
  check(xnn_define_convolution_2d(
      _graph.subgraph.get(), 0, 0, 0, 0, height, width,
      options.value<std::uint32_t>(strideYField, 1), options.value<std::uint32_t>(strideXField, 1),
      1, 1, 1, filter.at(3), filter.at(0), limits.low, limits.high, in(operation, 0),
      in(operation, 1), in(operation, 2), out(operation),
      isSame && (width > 1 || height > 1) ? XNN_FLAG_TENSORFLOW_SAME_PADDING : 0));
}

void Builder::convolveDepthwise(const Operation& operation) {
  const auto& filter = shape(operation, 1);
  const auto& options = operation.options;
  const auto limits = limitsOf(options.value<std::int8_t>(depthwiseActivation, 0));
  const bool isSame = options.value<std::int8_t>(paddingField, 0) == 0;
  check(xnn_define_depthwise_convolution_2d(
      _graph.subgraph.get(), 0, 0, 0, 0, static_cast<std::uint32_t>(filter.at(1)),
      static_cast<std::uint32_t>(filter.at(2)), options.value<std::uint32_t>(strideYField, 1),
      options.value<std::uint32_t>(strideXField, 1), 1, 1, 1, filter.at(3), limits.low, limits.high,
      in(operation, 0), in(operation, 1), in(operation, 2), out(operation),
      isSame ? XNN_FLAG_TENSORFLOW_SAME_PADDING : 0));
}

void Builder::convolveTransposed(const Operation& operation) {
  const auto& filter = shape(operation, 1);
  // Padding, then the strides: three numbers of 32 bits.
  const auto strideX = flatbuffer::read<std::uint32_t>(operation.customOptions, 4);
  const auto strideY = flatbuffer::read<std::uint32_t>(operation.customOptions, 8);
  check(xnn_define_deconvolution_2d(
      _graph.subgraph.get(), 0, 0, 0, 0, 0, 0, static_cast<std::uint32_t>(filter.at(1)),
      static_cast<std::uint32_t>(filter.at(2)), strideY, strideX, 1, 1, 1, filter.at(3),
      filter.at(0), -unbounded, unbounded, in(operation, 0), in(operation, 1), in(operation, 2),
      out(operation), 0));
}

void Builder::resize(const Operation& operation) {
  const auto& sides = _model.tensor(at(operation.outputs, 0)).shape;
  const bool isCentred = operation.options.value<std::int8_t>(halfPixelCentres, 0) != 0;
  check(xnn_define_static_resize_bilinear_2d(_graph.subgraph.get(), sides.at(1), sides.at(2),
                                             in(operation, 0), out(operation),
                                             isCentred ? 0 : XNN_FLAG_TENSORFLOW_LEGACY_MODE));
}

void Builder::add(const Operation& operation) {
  auto* graph = _graph.subgraph.get();
  switch (operation.kind) {
    case Kind::dequantize:
      return widen(operation);
    case Kind::convolution:
      return convolve(operation);
    case Kind::depthwiseConvolution:
      return convolveDepthwise(operation);
    case Kind::custom:
      return convolveTransposed(operation);
    case Kind::resizeBilinear:
      return resize(operation);
    case Kind::relu:
      return check(xnn_define_clamp(graph, 0, unbounded, in(operation, 0), out(operation), 0));
    case Kind::logistic:
      return check(xnn_define_sigmoid(graph, in(operation, 0), out(operation), 0));
    case Kind::hardSwish:
      return check(xnn_define_hardswish(graph, in(operation, 0), out(operation), 0));
    case Kind::add:
      return check(xnn_define_add2(graph, -unbounded, unbounded, in(operation, 0), in(operation, 1),
                                   out(operation), 0));
    case Kind::multiply:
      return check(xnn_define_multiply2(graph, -unbounded, unbounded, in(operation, 0),
                                        in(operation, 1), out(operation), 0));
    case Kind::averagePool:  // over the whole picture, in the models that there are
    case Kind::mean:
      return check(xnn_define_global_average_pooling_2d(graph, -unbounded, unbounded,
                                                        in(operation, 0), out(operation), 0));
  }
  throw std::runtime_error("the network has an operation that isn't known here");
}

Graph Builder::build() {
  check(xnn_initialize(nullptr));  // for the process; more than once does nothing
  xnn_subgraph_t subgraph = nullptr;
  constexpr std::uint32_t externals = 2;
  check(xnn_create_subgraph(externals, 0, &subgraph));
  _graph.subgraph.reset(subgraph);
  for (const auto& operation : _model.operations) add(operation);
  return std::move(_graph);
}

}  // namespace

void check(xnn_status status) {
  if (status != xnn_status_success)
    throw std::runtime_error("XNNPACK: status " + std::to_string(static_cast<int>(status)));
}

Graph buildGraph(const Model& model) {
  try {
    return Builder(model).build();
  } catch (const std::out_of_range&) {
    throw flatbuffer::Damaged();
  }
}

}  // namespace kestrova::segmentation
