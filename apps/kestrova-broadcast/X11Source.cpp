#include <sys/mman.h>
#include <unistd.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>

#include "ScreenSource.h"
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kestrova::broadcast {
namespace {

template <class T>
struct Free {
  void operator()(T* reply) const { std::free(reply); }
};
template <class T>
using Reply = std::unique_ptr<T, Free<T>>;

template <class T>
Reply<T> own(T* reply) {
  return Reply<T>(reply);
}

/// Memory that the X server writes pictures into.
class SharedMemory {
public:
  SharedMemory(xcb_connection_t* connection, std::size_t size)
      : _connection(connection), _size(size) {
    const int memory = ::memfd_create("kestrova-screen", MFD_CLOEXEC);
    if (memory < 0 || ::ftruncate(memory, static_cast<off_t>(size)) != 0) {
      if (memory >= 0) ::close(memory);
      throw SourceFailure("there is no memory for the screen's picture");
    }
    _bytes = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (_bytes == MAP_FAILED) {
      ::close(memory);
      throw SourceFailure("there is no memory for the screen's picture");
    }
    segment = xcb_generate_id(connection);
    // The server gets the descriptor, which is closed here by sending it.
    const auto failure = own(
        xcb_request_check(connection, xcb_shm_attach_fd_checked(connection, segment, memory, 0)));
    if (failure) {
      ::munmap(_bytes, size);
      throw SourceFailure("the X server can't share memory with this program");
    }
  }
  ~SharedMemory() {
    xcb_shm_detach(_connection, segment);
    ::munmap(_bytes, _size);
  }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  const std::uint8_t* bytes() const { return static_cast<const std::uint8_t*>(_bytes); }
  xcb_shm_seg_t segment = 0;

private:
  xcb_connection_t* const _connection;
  const std::size_t _size;
  void* _bytes = nullptr;
};

class X11Source final : public ScreenSource {
public:
  explicit X11Source(const Options& options) : _wanted(options.region) {
    int screenNumber = 0;
    _connection.reset(xcb_connect(nullptr, &screenNumber));
    if (xcb_connection_has_error(_connection.get()))
      throw SourceFailure("there is no X11 screen; DISPLAY says which one to take");
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(_connection.get()));
    while (screenNumber-- > 0 && screens.rem > 1) xcb_screen_next(&screens);
    const auto version = own(xcb_shm_query_version_reply(
        _connection.get(), xcb_shm_query_version(_connection.get()), nullptr));
    if (!version || version->major_version < 1 ||
        (version->major_version == 1 && version->minor_version < 2))
      throw SourceFailure("the X server can't share memory with this program");
    _drawable = options.window.value_or(screens.data->root);
    _isWindow = options.window.has_value();
    look();
  }

  std::optional<Picture> take() override {
    if (_isWindow || _grabs % grabsBetweenLooks == 0) look();
    ++_grabs;
    auto& fresh = *_memory[_grabs % 2];
    xcb_generic_error_t* failure = nullptr;
    const auto reply = own(xcb_shm_get_image_reply(
        _connection.get(),
        xcb_shm_get_image(_connection.get(), _drawable, static_cast<std::int16_t>(_area.x),
                          static_cast<std::int16_t>(_area.y),
                          static_cast<std::uint16_t>(_area.width),
                          static_cast<std::uint16_t>(_area.height), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP,
                          fresh.segment, 0),
        &failure));
    const auto freed = own(failure);
    if (xcb_connection_has_error(_connection.get())) throw SourceClosed("the X11 screen is gone");
    if (!reply) {
      // A window that is being resized, moved out of the screen or hidden: it shows again, or not.
      --_grabs;  // the picture before this one is the last
      look();
      return last(false);
    }
    const bool isNew =
        !_hasPicture ||
        std::memcmp(fresh.bytes(), _memory[(_grabs + 1) % 2]->bytes(), sizeInBytes()) != 0;
    _hasPicture = true;
    return last(isNew);
  }

private:
  static constexpr unsigned grabsBetweenLooks = 15;

  std::size_t sizeInBytes() const {
    return static_cast<std::size_t>(_area.width) * static_cast<std::size_t>(_area.height) * 4;
  }

  std::optional<Picture> last(bool isNew) const {
    if (!_hasPicture) return std::nullopt;
    return Picture{
        .view = {_memory[_grabs % 2]->bytes(), _area.width * 4, _area.width, _area.height},
        .isNew = isNew};
  }

  /// How large it is now: screens are turned and windows resized.
  void look() {
    const auto geometry = own(xcb_get_geometry_reply(
        _connection.get(), xcb_get_geometry(_connection.get(), _drawable), nullptr));
    if (!geometry) {
      if (_memory[0]) throw SourceClosed("what was shared is gone");
      throw SourceFailure("there is no such window");
    }
    if (geometry->depth != 24 && geometry->depth != 32)
      throw SourceFailure("the screen has " + std::to_string(geometry->depth) +
                          " bits a pixel; 24 are needed");
    Region area{0, 0, geometry->width, geometry->height};
    if (_wanted) {
      area = {std::min(_wanted->x, area.width - 1), std::min(_wanted->y, area.height - 1),
              std::min(_wanted->width, area.width - _wanted->x),
              std::min(_wanted->height, area.height - _wanted->y)};
      if (area.width < 1 || area.height < 1)
        throw SourceFailure("the region is outside the screen");
    }
    if (_memory[0] && area.width == _area.width && area.height == _area.height) return;
    _area = area;
    _hasPicture = false;
    for (auto& memory : _memory) {
      memory.reset();
      memory = std::make_unique<SharedMemory>(_connection.get(), sizeInBytes());
    }
  }

  struct Disconnect {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
  };
  std::unique_ptr<xcb_connection_t, Disconnect> _connection;
  const std::optional<Region> _wanted;
  xcb_drawable_t _drawable = 0;
  bool _isWindow = false;
  Region _area;
  std::array<std::unique_ptr<SharedMemory>, 2> _memory;  // in turns, to tell what is new
  unsigned _grabs = 0;
  bool _hasPicture = false;
};

}  // namespace

std::unique_ptr<ScreenSource> makeX11Source(const Options& options) {
  return std::make_unique<X11Source>(options);
}

}  // namespace kestrova::broadcast
