#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrova {

/// Runs its function once, when it goes. What the function throws is lost.
class ReleaseGuard {
public:
  explicit ReleaseGuard(std::function<void()> release) : _release(std::move(release)) {}
  ~ReleaseGuard();
  ReleaseGuard(const ReleaseGuard&) = delete;
  ReleaseGuard& operator=(const ReleaseGuard&) = delete;

private:
  std::function<void()> _release;
};

/// Pixels in memory of somebody else, which stays as it is until `release` is called: once, when
/// nobody looks at the picture any more, on any thread.
class WrappedI420Buffer final : public VideoFrameBuffer {
public:
  WrappedI420Buffer(const I420View& view, std::function<void()> release)
      : _view(view), _release(std::move(release)) {}
  I420View i420() const override { return _view; }

private:
  const I420View _view;
  const ReleaseGuard _release;
};

/// The same for NV12.
class WrappedNV12Buffer final : public VideoFrameBuffer {
public:
  WrappedNV12Buffer(const NV12View& view, std::function<void()> release)
      : _view(view), _release(std::move(release)) {}
  PixelFormat format() const override { return PixelFormat::nv12; }
  I420View i420() const override;
  NV12View nv12() const override { return _view; }

private:
  const NV12View _view;
  const ReleaseGuard _release;
  mutable std::once_flag _split;
  mutable std::vector<std::uint8_t> _chroma;  // U, then V; filled by the first call of i420()
};

/// Pixels in memory of somebody else, which must outlive the buffer.
class WrappedBGRABuffer final : public VideoFrameBuffer {
public:
  explicit WrappedBGRABuffer(const BGRAView& view) : _view(view) {}
  PixelFormat format() const override { return PixelFormat::bgra; }
  I420View i420() const override { return {}; }
  BGRAView bgra() const override { return _view; }

private:
  const BGRAView _view;
};

}  // namespace kestrova
