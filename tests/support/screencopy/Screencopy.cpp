// Preloaded into the portal's backend for a compositor without a graphics card. The backend gives
// up unless the compositor offers a screen in a graphics card's memory, too, though it then takes
// the plain one. This offers it, ahead of each offer of plain memory.
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace {

using Event = void (*)();
/// The listener of zwlr_screencopy_frame_v1, in the order of the protocol.
enum Place {
  bufferPlace,
  flagsPlace,
  readyPlace,
  failedPlace,
  damagePlace,
  dmabufPlace,
  allPlaces
};
constexpr std::uint32_t xrgb8888 = 0x34325258;

const Event* theirs = nullptr;
std::array<Event, allPlaces + 1> ours{};

void onBuffer(void* data, void* frame, std::uint32_t format, std::uint32_t width,
              std::uint32_t height, std::uint32_t stride) {
  using OnDmabuf = void (*)(void*, void*, std::uint32_t, std::uint32_t, std::uint32_t);
  using OnBuffer =
      void (*)(void*, void*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t);
  reinterpret_cast<OnDmabuf>(theirs[dmabufPlace])(data, frame, xrgb8888, width, height);
  reinterpret_cast<OnBuffer>(theirs[bufferPlace])(data, frame, format, width, height, stride);
}

}  // namespace

extern "C" int wl_proxy_add_listener(void* proxy, const Event* listener, void* data) {
  using AddListener = int (*)(void*, const Event*, void*);
  using GetClass = const char* (*)(void*);
  static const auto add =
      reinterpret_cast<AddListener>(::dlsym(RTLD_NEXT, "wl_proxy_add_listener"));
  static const auto classOf = reinterpret_cast<GetClass>(::dlsym(RTLD_NEXT, "wl_proxy_get_class"));
  if (std::strcmp(classOf(proxy), "zwlr_screencopy_frame_v1") == 0) {
    theirs = listener;
    std::copy(listener, listener + ours.size(), ours.begin());
    ours[bufferPlace] = reinterpret_cast<Event>(&onBuffer);
    listener = ours.data();
  }
  return add(proxy, listener, data);
}
