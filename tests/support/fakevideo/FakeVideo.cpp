#include "FakeVideo.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include "FakeCamera.h"
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>

namespace kestrova::test {
namespace {

struct Registry {
  std::mutex lock;
  // Under lock:
  std::vector<FakeCamera> cameras;
  std::map<int, std::shared_ptr<FakeHandle>> handles;
};

/// Never destroyed: threads left behind may still call.
Registry& registry() {
  static auto* const made = [] {
    auto* fresh = new Registry;
    if (const char* text = std::getenv("FAKEVIDEO")) fresh->cameras = parseFakeCameras(text);
    return fresh;
  }();
  return *made;
}

std::shared_ptr<FakeHandle> handleOf(int fd) {
  std::scoped_lock held(registry().lock);
  const auto found = registry().handles.find(fd);
  return found == registry().handles.end() ? nullptr : found->second;
}

bool isVideo(const char* path) {
  return path && std::string_view(path).starts_with("/dev/video");
}

int openCamera(const char* path) {
  std::scoped_lock held(registry().lock);
  const auto& cameras = registry().cameras;
  const auto found = std::find_if(cameras.begin(), cameras.end(),
                                  [&](const auto& camera) { return camera.path == path; });
  if (found == cameras.end() || found->openError != 0) {
    errno = found == cameras.end() ? ENOENT : found->openError;
    return -1;
  }
  auto handle = std::make_shared<FakeHandle>(*found);
  const int fd = handle->fd();
  if (fd >= 0) registry().handles[fd] = std::move(handle);
  return fd;
}

template <typename Function>
Function real(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace kestrova::test

using namespace kestrova::test;

extern "C" {

void fakevideoConfigure(const char* cameras) {
  std::scoped_lock held(registry().lock);
  registry().cameras = parseFakeCameras(cameras);
}

void fakevideoRelease() {
  std::scoped_lock held(registry().lock);
  for (const auto& [fd, handle] : registry().handles) handle->release();
}

int fakevideoOpenHandles() {
  std::scoped_lock held(registry().lock);
  return static_cast<int>(registry().handles.size());
}

// The calls that are stood in for, by the names that programs are compiled to call.

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  if (isVideo(path)) return openCamera(path);
  static const auto next = real<int (*)(const char*, int, ...)>("open");
  return next(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  if (isVideo(path)) return openCamera(path);
  static const auto next = real<int (*)(const char*, int, ...)>("open64");
  return next(path, flags, mode);
}

int close(int fd) {
  std::shared_ptr<FakeHandle> handle;
  {
    std::scoped_lock held(registry().lock);
    if (const auto found = registry().handles.find(fd); found != registry().handles.end()) {
      handle = std::move(found->second);
      registry().handles.erase(found);
    }
  }
  static const auto next = real<int (*)(int)>("close");
  return next(fd);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (const auto handle = handleOf(fd)) {
    const int error = handle->control(request, argument);
    if (error != 0) errno = error;
    return error == 0 ? 0 : -1;
  }
  static const auto next = real<int (*)(int, unsigned long, ...)>("ioctl");
  return next(fd, request, argument);
}

void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
  if (fd >= 0)
    if (const auto handle = handleOf(fd)) fd = handle->memory();
  static const auto next = real<void* (*)(void*, size_t, int, int, int, off_t)>("mmap");
  return next(address, length, protection, flags, fd, offset);
}
}
