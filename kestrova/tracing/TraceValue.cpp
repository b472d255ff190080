#include <kestrova/tracing/TraceValue.h>

#include <array>
#include <charconv>

namespace kestrova {
namespace {

struct Description {
  std::string operator()(std::string_view text) const { return std::string(text); }
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(std::uint64_t number) const { return std::to_string(number); }
  std::string operator()(double number) const {
    std::array<char, 32> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return {digits.data(), end};
  }
  std::string operator()(bool flag) const { return flag ? "true" : "false"; }
  std::string operator()(const Value* value) const {
    if (const auto* text = value->if_string()) return std::string(*text);
    if (const auto* number = value->if_double()) return (*this)(*number);
    return boost::json::serialize(*value);
  }
  std::string operator()(const Dictionary* value) const { return boost::json::serialize(*value); }
  std::string operator()(const List* value) const { return boost::json::serialize(*value); }
  std::string operator()(const tracing::LazyText& lazy) const { return lazy.call(lazy.callable); }
};

}  // namespace

std::string TraceText::text() const {
  return std::visit(Description{}, _text);
}

std::string TraceValue::text() const {
  return std::visit(Description{}, _value);
}

TraceAttributes TraceAttributeList::prepared() const {
  TraceAttributes attributes;
  for (const auto& item : _items)
    attributes.insert_or_assign(std::string(item.key), item.value.text());
  return attributes;
}

}  // namespace kestrova
