#include "PipeWireStream.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>

#include "ScreenSource.h"
#include <array>
#include <vector>

namespace kestrova::broadcast {
namespace {

constexpr std::uint32_t largestSide = 8192;

bool isRedFirst(spa_video_format format) {
  return format == SPA_VIDEO_FORMAT_RGBx || format == SPA_VIDEO_FORMAT_RGBA;
}

}  // namespace

struct PipeWireStream::State {
  State(int remote, std::uint32_t wantedNode, int fps);
  ~State();

  static State& of(void* data) { return *static_cast<State*>(data); }
  void offerFormat(int fps);
  void formatChanged(const spa_pod* parameter);
  void takeNewest();
  void giveBack();
  std::optional<BGRAView> view() const;
  void swapColours(const BGRAView& picture);

  pw_main_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  pw_registry* registry = nullptr;
  pw_stream* stream = nullptr;
  spa_hook coreHook{}, registryHook{}, streamHook{};
  pw_core_events coreEvents{};
  pw_registry_events registryEvents{};
  pw_stream_events streamEvents{};
  const std::uint32_t node;
  spa_video_info_raw format{};
  pw_buffer* held = nullptr;  // the newest picture; its memory is not written to meanwhile
  std::vector<std::uint8_t> swapped;
  bool isNew = false;
  bool hasEnded = false;
};

PipeWireStream::State::State(int remote, std::uint32_t wantedNode, int fps) : node(wantedNode) {
  pw_init(nullptr, nullptr);
  loop = pw_main_loop_new(nullptr);
  context = loop ? pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0) : nullptr;
  core = context ? pw_context_connect_fd(context, remote, nullptr, 0) : nullptr;
  if (!core) return;
  coreEvents.version = PW_VERSION_CORE_EVENTS;
  coreEvents.error = [](void* data, std::uint32_t id, int, int, const char*) {
    if (id == PW_ID_CORE) of(data).hasEnded = true;
  };
  pw_core_add_listener(core, &coreHook, &coreEvents, this);
  // The only sure sign that the source is gone: the stream itself just pauses.
  registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
  registryEvents.version = PW_VERSION_REGISTRY_EVENTS;
  registryEvents.global_remove = [](void* data, std::uint32_t id) {
    if (id == of(data).node) of(data).hasEnded = true;
  };
  pw_registry_add_listener(registry, &registryHook, &registryEvents, this);

  stream = pw_stream_new(
      core, "kestrova-broadcast",
      pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                        PW_KEY_MEDIA_ROLE, "Screen", PW_KEY_NODE_DONT_RECONNECT, "true", nullptr));
  if (!stream) return;
  streamEvents.version = PW_VERSION_STREAM_EVENTS;
  streamEvents.param_changed = [](void* data, std::uint32_t id, const spa_pod* parameter) {
    if (id == SPA_PARAM_Format) of(data).formatChanged(parameter);
  };
  streamEvents.process = [](void* data) { of(data).takeNewest(); };
  streamEvents.remove_buffer = [](void* data, pw_buffer* buffer) {
    if (of(data).held == buffer) of(data).held = nullptr;
  };
  streamEvents.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char*) {
    if (state == PW_STREAM_STATE_ERROR) of(data).hasEnded = true;
  };
  pw_stream_add_listener(stream, &streamHook, &streamEvents, this);
  offerFormat(fps);
}

PipeWireStream::State::~State() {
  if (stream) pw_stream_destroy(stream);
  if (registry) pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
  if (core) pw_core_disconnect(core);
  if (context) pw_context_destroy(context);
  if (loop) pw_main_loop_destroy(loop);
  pw_deinit();
}

void PipeWireStream::State::offerFormat(int fps) {
  std::array<std::uint8_t, 1024> memory{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory.data(), memory.size());
  const spa_rectangle usual{1920, 1080}, smallest{1, 1}, largest{largestSide, largestSide};
  // Screens have no rate of their own: one that is demanded is never met.
  const spa_fraction variable{0, 1}, fastest{240, 1}, most{static_cast<std::uint32_t>(fps), 1};
  const auto* offer = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
      SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
      SPA_FORMAT_VIDEO_format,
      SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                             SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
      SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&usual, &smallest, &largest),
      SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&variable, &variable, &fastest),
      SPA_FORMAT_VIDEO_maxFramerate, SPA_POD_CHOICE_RANGE_Fraction(&most, &variable, &most)));
  const auto flags =
      static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS);
  if (pw_stream_connect(stream, PW_DIRECTION_INPUT, node, flags, &offer, 1) < 0) hasEnded = true;
}

void PipeWireStream::State::formatChanged(const spa_pod* parameter) {
  held = nullptr;
  if (!parameter || spa_format_video_raw_parse(parameter, &format) < 0) return;
  std::array<std::uint8_t, 512> memory{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory.data(), memory.size());
  // Memory that can be looked at, not a graphics card's.
  constexpr int kinds = (1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd);
  const auto* buffers = static_cast<const spa_pod*>(
      spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
                                 SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8),
                                 SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(kinds)));
  pw_stream_update_params(stream, &buffers, 1);
}

void PipeWireStream::State::giveBack() {
  if (held) pw_stream_queue_buffer(stream, held);
  held = nullptr;
}

void PipeWireStream::State::takeNewest() {
  while (auto* buffer = pw_stream_dequeue_buffer(stream)) {
    const auto& data = buffer->buffer->datas[0];
    // Some portals send buffers with nothing in them, for the cursor's sake.
    if (!data.data || data.chunk->size == 0 || (data.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED)) {
      pw_stream_queue_buffer(stream, buffer);
      continue;
    }
    giveBack();
    held = buffer;
    isNew = true;
  }
}

std::optional<BGRAView> PipeWireStream::State::view() const {
  if (!held) return std::nullopt;
  const auto& data = held->buffer->datas[0];
  const BGRAView picture{.pixels = static_cast<const std::uint8_t*>(data.data) + data.chunk->offset,
                         .stride = data.chunk->stride,
                         .width = static_cast<int>(format.size.width),
                         .height = static_cast<int>(format.size.height)};
  const auto needed = static_cast<std::uint64_t>(data.chunk->offset) +
                      static_cast<std::uint64_t>(std::max(0, picture.stride)) *
                          static_cast<std::uint64_t>(std::max(0, picture.height));
  if (!isComplete(picture) || needed > data.maxsize) return std::nullopt;
  return picture;
}

void PipeWireStream::State::swapColours(const BGRAView& picture) {
  const auto row = static_cast<std::size_t>(picture.width) * 4;
  swapped.resize(row * static_cast<std::size_t>(picture.height));
  for (int y = 0; y < picture.height; ++y) {
    const auto* from = picture.pixels + static_cast<std::ptrdiff_t>(y) * picture.stride;
    auto* to = swapped.data() + static_cast<std::size_t>(y) * row;
    for (std::size_t i = 0; i < row; i += 4) {
      to[i] = from[i + 2];
      to[i + 1] = from[i + 1];
      to[i + 2] = from[i];
    }
  }
}

PipeWireStream::PipeWireStream(int remote, std::uint32_t node, int fps)
    : _state(std::make_unique<State>(remote, node, fps)) {
  if (!_state->stream) throw SourceFailure("PipeWire can't be reached");
}

PipeWireStream::~PipeWireStream() = default;

bool PipeWireStream::update() {
  auto* loop = pw_main_loop_get_loop(_state->loop);
  _state->isNew = false;
  pw_loop_enter(loop);
  while (pw_loop_iterate(loop, 0) > 0) {
  }
  pw_loop_leave(loop);
  if (const auto picture = _state->view();
      picture && _state->isNew && isRedFirst(_state->format.format))
    _state->swapColours(*picture);
  return _state->isNew;
}

std::optional<BGRAView> PipeWireStream::picture() const {
  const auto picture = _state->view();
  if (!picture || !isRedFirst(_state->format.format)) return picture;
  return BGRAView{.pixels = _state->swapped.data(),
                  .stride = picture->width * 4,
                  .width = picture->width,
                  .height = picture->height};
}

bool PipeWireStream::hasEnded() const {
  return _state->hasEnded;
}

}  // namespace kestrova::broadcast
