#include <kestrova/platform/Values.h>

#include <cmath>
#include <utility>

namespace kestrova {
namespace {

const Value* find(const Dictionary& dictionary, std::string_view key) {
  return dictionary.if_contains(key);
}

std::optional<std::int64_t> wholeNumber(const Value& value) {
  if (const auto* number = value.if_int64()) return *number;
  if (const auto* number = value.if_uint64())
    return std::in_range<std::int64_t>(*number) ? std::optional(static_cast<std::int64_t>(*number))
                                                : std::nullopt;
  if (const auto* number = value.if_double()) {
    constexpr double exact = 9007199254740992.0;  // 2^53: beyond it doubles skip integers
    if (std::trunc(*number) == *number && std::abs(*number) <= exact)
      return static_cast<std::int64_t>(*number);
  }
  return std::nullopt;
}

}  // namespace

const Dictionary* dictionary(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  return value ? value->if_object() : nullptr;
}

const List* list(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  return value ? value->if_array() : nullptr;
}

std::optional<std::string> text(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string(value->get_string());
}

std::string text(const Dictionary& from, std::string_view key, std::string_view fallback) {
  return text(from, key).value_or(std::string(fallback));
}

std::optional<std::int64_t> integer(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  return value ? wholeNumber(*value) : std::nullopt;
}

std::int64_t integer(const Dictionary& from, std::string_view key, std::int64_t fallback) {
  return integer(from, key).value_or(fallback);
}

std::optional<bool> boolean(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  if (!value || !value->is_bool()) return std::nullopt;
  return value->get_bool();
}

bool boolean(const Dictionary& from, std::string_view key, bool fallback) {
  return boolean(from, key).value_or(fallback);
}

const Dictionary& asDictionary(const Value& value) {
  static const auto& empty = *new Dictionary;
  const auto* object = value.if_object();
  return object ? *object : empty;
}

std::optional<Value> parseJson(std::string_view json) {
  boost::system::error_code error;
  auto value = boost::json::parse(json, error);
  if (error) return std::nullopt;
  return value;
}

Dictionary parseDictionary(std::string_view json) {
  auto value = parseJson(json);
  return value && value->is_object() ? std::move(value->get_object()) : Dictionary();
}

bool isJsonEncodable(const Dictionary& dictionary) {
  for (const auto& [key, value] : dictionary)
    if (!isUtf8(key) || !isJsonEncodable(value)) return false;
  return true;
}

bool isJsonEncodable(const Value& value) {
  switch (value.kind()) {
    case boost::json::kind::double_:
      return std::isfinite(value.get_double());
    case boost::json::kind::string:
      return isUtf8(value.get_string());
    case boost::json::kind::array:
      for (const auto& element : value.get_array())
        if (!isJsonEncodable(element)) return false;
      return true;
    case boost::json::kind::object:
      return isJsonEncodable(value.get_object());
    default:
      return true;
  }
}

std::optional<std::string> jsonText(const Value& value) {
  if (!isJsonEncodable(value)) return std::nullopt;
  return boost::json::serialize(value);
}

std::optional<std::string> jsonText(const Dictionary& dictionary) {
  if (!isJsonEncodable(dictionary)) return std::nullopt;
  return boost::json::serialize(dictionary);
}

// RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = bytes + text.size();
  auto tail = [&](int count) {
    for (; count > 0; --count, ++bytes)
      if (bytes == end || (*bytes & 0xC0) != 0x80) return false;
    return true;
  };
  auto second = [&](unsigned low, unsigned high) {
    return bytes != end && *bytes >= low && *bytes <= high;
  };
  while (bytes != end) {
    const unsigned lead = *bytes++;
    if (lead < 0x80) continue;
    bool good = false;
    if (lead >= 0xC2 && lead <= 0xDF)
      good = tail(1);
    else if (lead == 0xE0)
      good = second(0xA0, 0xBF) && tail(2);
    else if (lead == 0xED)
      good = second(0x80, 0x9F) && tail(2);
    else if (lead >= 0xE1 && lead <= 0xEF)
      good = tail(2);
    else if (lead == 0xF0)
      good = second(0x90, 0xBF) && tail(3);
    else if (lead == 0xF4)
      good = second(0x80, 0x8F) && tail(3);
    else if (lead >= 0xF1 && lead <= 0xF3)
      good = tail(3);
    if (!good) return false;
  }
  return true;
}

}  // namespace kestrova
