#include <kestrova/platform/linux/segmentation/Flatbuffer.h>

namespace kestrova::flatbuffer {

Table::Table(Bytes file, std::size_t at) : _file(file), _at(at) {
  const auto back = static_cast<std::int64_t>(read<std::int32_t>(file, at));
  const auto list = static_cast<std::int64_t>(at) - back;
  if (list < 0) throw Damaged();
  const auto start = static_cast<std::size_t>(list);
  constexpr std::size_t header = 2 * sizeof(std::uint16_t);
  const auto size = read<std::uint16_t>(file, start);
  if (size < header) throw Damaged();
  _fields = start + header;
  _count = static_cast<int>((size - header) / sizeof(std::uint16_t));
}

std::size_t Table::place(int field) const {
  if (field >= _count) return 0;
  const auto number = static_cast<std::size_t>(field);
  const auto offset = read<std::uint16_t>(_file, _fields + number * sizeof(std::uint16_t));
  return offset ? _at + offset : 0;
}

Table Table::table(int field) const {
  const auto at = place(field);
  return at ? Table(_file, at + read<std::uint32_t>(_file, at)) : Table();
}

Table::List Table::list(int field, std::size_t elementSize) const {
  const auto at = place(field);
  if (!at) return {};
  const auto start = at + read<std::uint32_t>(_file, at);
  const std::size_t count = read<std::uint32_t>(_file, start);
  const auto first = start + sizeof(std::uint32_t);
  if (count > (_file.size() - first) / elementSize) throw Damaged();
  return {first, count};
}

std::vector<Table> Table::tables(int field) const {
  const auto elements = list(field, sizeof(std::uint32_t));
  std::vector<Table> all;
  for (std::size_t i = 0; i < elements.count; ++i) {
    const auto at = elements.at + i * sizeof(std::uint32_t);
    all.emplace_back(_file, at + read<std::uint32_t>(_file, at));
  }
  return all;
}

std::vector<std::int32_t> Table::integers(int field) const {
  const auto elements = list(field, sizeof(std::int32_t));
  std::vector<std::int32_t> all;
  for (std::size_t i = 0; i < elements.count; ++i)
    all.push_back(read<std::int32_t>(_file, elements.at + i * sizeof(std::int32_t)));
  return all;
}

Bytes Table::bytes(int field) const {
  const auto elements = list(field, 1);
  return _file.subspan(elements.at, elements.count);
}

}  // namespace kestrova::flatbuffer
