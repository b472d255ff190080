#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace kestrova {

/// A regular file that is read. One thread at a time.
class File {
public:
  /// Opens, or gives why it can't be read as a sentence for people.
  std::string open(const std::string& path);
  /// The bytes read; fewer than asked for only at the end or at a fault of the disk.
  std::size_t read(std::span<std::uint8_t> bytes);
  bool readFully(std::span<std::uint8_t> bytes) { return read(bytes) == bytes.size(); }
  /// The next byte, or -1 at the end.
  int readByte() { return ::getc_unlocked(_file.get()); }
  /// The position from the start, in bytes.
  std::int64_t position() const;
  bool seek(std::int64_t position);
  std::int64_t size() const { return _size; }

private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Close> _file;
  std::int64_t _size = 0;
};

/// Whether a path ends in `extension` (such as ".wav"), in upper or lower case.
bool hasExtension(std::string_view path, std::string_view extension);

}  // namespace kestrova
