#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <memory>
#include <optional>

namespace kestrova::broadcast {

/// The pictures of one node of PipeWire. One thread; nothing runs but within its calls.
class PipeWireStream {
public:
  /// \param remote is closed with it \throws SourceFailure
  PipeWireStream(int remote, std::uint32_t node, int fps);
  ~PipeWireStream();
  PipeWireStream(const PipeWireStream&) = delete;
  PipeWireStream& operator=(const PipeWireStream&) = delete;

  /// Works off what has come. \returns whether a picture did
  bool update();
  /// The newest picture, valid until the next `update`; nothing while there is none.
  std::optional<BGRAView> picture() const;
  /// Whether the node, or PipeWire itself, is gone.
  bool hasEnded() const;

private:
  struct State;
  const std::unique_ptr<State> _state;
};

}  // namespace kestrova::broadcast
