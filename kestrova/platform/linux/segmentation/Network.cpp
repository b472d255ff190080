#include <kestrova/platform/linux/segmentation/GraphBuilder.h>
#include <kestrova/platform/linux/segmentation/Network.h>

#include <xnnpack.h>

#include <stdexcept>
#include <vector>

namespace kestrova::segmentation {
namespace {

constexpr std::size_t colours = 3;
/// What is read and written may be rounded up to whole vectors.
constexpr std::size_t spare = XNN_EXTRA_BYTES / sizeof(float);

}  // namespace

struct Network::State {
  Graph graph;
  xnn_runtime_t runtime = nullptr;
  std::vector<float> input;
  std::vector<float> output;

  ~State() {
    if (runtime) xnn_delete_runtime(runtime);
  }
};

Network::Network(const Model& model) : _state(std::make_unique<State>()) {
  const auto& in = model.tensor(model.input).shape;
  const auto& out = model.tensor(model.output).shape;
  if (in.size() != 4 || out.size() != 4 || in[0] != 1 || in[3] != colours || out[3] != 1 ||
      in[1] != out[1] || in[2] != out[2])
    throw std::runtime_error("the network doesn't make a mask of a picture");
  _height = static_cast<int>(in[1]);
  _width = static_cast<int>(in[2]);
  const auto pixels = in[1] * in[2];
  auto& state = *_state;
  state.input.resize(pixels * colours + spare);
  state.output.resize(pixels + spare);

  state.graph = buildGraph(model);
  // No thread pool: on busy cores its spinning costs more than it brings.
  check(xnn_create_runtime_v2(state.graph.subgraph.get(), nullptr, 0, &state.runtime));
  const xnn_external_value ends[] = {{Graph::inputId, state.input.data()},
                                     {Graph::outputId, state.output.data()}};
  check(xnn_setup_runtime(state.runtime, std::size(ends), ends));
}

Network::~Network() = default;

std::span<float> Network::input() {
  return {_state->input.data(), _state->input.size() - spare};
}

std::span<const float> Network::run() {
  check(xnn_invoke_runtime(_state->runtime));
  return {_state->output.data(), _state->output.size() - spare};
}

}  // namespace kestrova::segmentation
