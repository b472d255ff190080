#pragma once

#include <kestrova/platform/linux/segmentation/Model.h>

#include <xnnpack.h>

#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

namespace kestrova::segmentation {

/// \throws std::runtime_error for anything but success
void check(xnn_status status);

/// A network as XNNPACK takes it.
struct Graph {
  static constexpr std::uint32_t inputId = 0;
  static constexpr std::uint32_t outputId = 1;
  struct Delete {
    void operator()(xnn_subgraph_t graph) const { xnn_delete_subgraph(graph); }
  };
  std::unique_ptr<std::remove_pointer_t<xnn_subgraph_t>, Delete> subgraph;
  /// The constants, to which it refers.
  std::vector<std::vector<float>> weights;
};

/// \throws std::runtime_error when the model has something that isn't known here
Graph buildGraph(const Model& model);

}  // namespace kestrova::segmentation
