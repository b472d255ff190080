#include <kestrova/platform/linux/segmentation/Model.h>

#include <algorithm>

namespace kestrova::segmentation {
namespace {

using flatbuffer::Damaged;
using flatbuffer::Table;

// Fields by their numbers in the format's schema.
namespace field {
constexpr int modelCodes = 1, modelGraphs = 2, modelBuffers = 4;
constexpr int graphTensors = 0, graphInputs = 1, graphOutputs = 2, graphOperators = 3;
constexpr int tensorShape = 0, tensorBuffer = 2;
constexpr int operatorCode = 0, operatorInputs = 1, operatorOutputs = 2, operatorOptions = 4,
              operatorCustomOptions = 5;
constexpr int codeOld = 0, codeNew = 3;
constexpr int bufferData = 0;
}  // namespace field

Tensor readTensor(const Table& table, const std::vector<Table>& buffers) {
  Tensor tensor;
  for (const auto side : table.integers(field::tensorShape)) {
    if (side < 1) throw Damaged();
    tensor.shape.push_back(static_cast<std::size_t>(side));
  }
  const auto buffer = table.value<std::uint32_t>(field::tensorBuffer, 0);
  if (buffer >= buffers.size()) throw Damaged();
  tensor.content = buffers[buffer].bytes(field::bufferData);
  return tensor;
}

/// Numbers above 126 have a field of their own.
Kind kindOf(const Table& code) {
  return static_cast<Kind>(std::max<std::int32_t>(code.value<std::int8_t>(field::codeOld, 0),
                                                  code.value<std::int32_t>(field::codeNew, 0)));
}

Operation readOperation(const Table& table, const std::vector<Table>& codes) {
  const auto code = table.value<std::uint32_t>(field::operatorCode, 0);
  if (code >= codes.size()) throw Damaged();
  return {.kind = kindOf(codes[code]),
          .inputs = table.integers(field::operatorInputs),
          .outputs = table.integers(field::operatorOutputs),
          .options = table.table(field::operatorOptions),
          .customOptions = table.bytes(field::operatorCustomOptions)};
}

}  // namespace

Model readModel(flatbuffer::Bytes file) {
  const auto root = Table::root(file);
  const auto codes = root.tables(field::modelCodes);
  const auto buffers = root.tables(field::modelBuffers);
  const auto graphs = root.tables(field::modelGraphs);
  if (graphs.size() != 1) throw Damaged();
  Model model;
  for (const auto& table : graphs[0].tables(field::graphTensors))
    model.tensors.push_back(readTensor(table, buffers));
  for (const auto& table : graphs[0].tables(field::graphOperators))
    model.operations.push_back(readOperation(table, codes));
  const auto inputs = graphs[0].integers(field::graphInputs);
  const auto outputs = graphs[0].integers(field::graphOutputs);
  if (inputs.size() != 1 || outputs.size() != 1) throw Damaged();
  model.input = inputs[0];
  model.output = outputs[0];
  return model;
}

}  // namespace kestrova::segmentation
