#include <kestrova/platform/linux/capture/File.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kestrova {

std::string File::open(const std::string& path) {
  const auto failure = [&] { return path + ": " + std::generic_category().message(errno); };
  // Without waiting: a pipe without a writer would never open.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return failure();
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    return path + " is no file";
  }
  _file.reset(::fdopen(fd, "rb"));
  if (!_file) {
    auto text = failure();
    ::close(fd);
    return text;
  }
  _size = status.st_size;
  return {};
}

std::size_t File::read(std::span<std::uint8_t> bytes) {
  return std::fread(bytes.data(), 1, bytes.size(), _file.get());
}

std::int64_t File::position() const {
  return ::ftello(_file.get());
}

bool File::seek(std::int64_t position) {
  return ::fseeko(_file.get(), position, SEEK_SET) == 0;
}

bool hasExtension(std::string_view path, std::string_view extension) {
  if (path.size() <= extension.size()) return false;
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::equal(extension.begin(), extension.end(), path.end() - extension.size(),
                    [&](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace kestrova
