#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <vector>

/// Reading FlatBuffers (flatbuffers.dev, "Internals") in place.
namespace kestrova::flatbuffer {

/// The file says something of itself that isn't so.
struct Damaged : std::runtime_error {
  Damaged() : std::runtime_error("the file is damaged") {}
};

using Bytes = std::span<const std::uint8_t>;

template <class T>
T read(Bytes bytes, std::size_t at) {
  if (at > bytes.size() || bytes.size() - at < sizeof(T)) throw Damaged();
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof(T));
  return value;
}

/// A table of fields by their number, each of which may be missing. \throws Damaged
class Table {
public:
  Table() = default;  ///< without fields
  Table(Bytes file, std::size_t at);
  static Table root(Bytes file) { return {file, read<std::uint32_t>(file, 0)}; }

  template <class T>
  T value(int field, T missing) const {
    const auto at = place(field);
    return at ? read<T>(_file, at) : missing;
  }
  Table table(int field) const;
  std::vector<Table> tables(int field) const;
  std::vector<std::int32_t> integers(int field) const;
  Bytes bytes(int field) const;

private:
  struct List {
    std::size_t at = 0;
    std::size_t count = 0;
  };
  /// Where the field is; 0 when it is missing.
  std::size_t place(int field) const;
  List list(int field, std::size_t elementSize) const;

  Bytes _file;
  std::size_t _at = 0;
  std::size_t _fields = 0;  // where their places are listed
  int _count = 0;
};

}  // namespace kestrova::flatbuffer
