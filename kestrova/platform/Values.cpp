#include <kestrova/platform/Values.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
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

/// The UTF-16 unit that an escape at the start of `text` stands for.
std::optional<unsigned> escapedUnit(std::string_view text) {
  if (text.size() < 6 || text[0] != '\\' || text[1] != 'u') return std::nullopt;
  unsigned unit = 0;
  const auto [end, error] = std::from_chars(text.data() + 2, text.data() + 6, unit, 16);
  if (error != std::errc() || end != text.data() + 6) return std::nullopt;
  return unit;
}

/// The text with U+FFFD for every escape that is half a surrogate pair; nothing when there is none.
std::optional<std::string> withWholeSurrogates(std::string_view json) {
  auto isLeading = [](unsigned unit) { return (unit & 0xFC00) == 0xD800; };
  auto isTrailing = [](unsigned unit) { return (unit & 0xFC00) == 0xDC00; };
  std::string whole;
  std::size_t taken = 0;
  for (auto at = json.find('\\'); at < json.size(); at = json.find('\\', at)) {
    const auto unit = escapedUnit(json.substr(at));
    if (!unit) {
      at += 2;
    } else if (isLeading(*unit) && isTrailing(escapedUnit(json.substr(at + 6)).value_or(0))) {
      at += 12;
    } else if (isLeading(*unit) || isTrailing(*unit)) {
      whole.append(json, taken, at - taken).append("\\ufffd");
      at += 6;
      taken = at;
    } else {
      at += 6;
    }
  }
  if (taken == 0) return std::nullopt;
  return whole.append(json, taken);
}

/// One number out of range must not cost the whole text, and infinity could not be sent again.
void makeFinite(Value& value) {
  if (auto* number = value.if_double()) {
    constexpr double most = std::numeric_limits<double>::max();
    *number = std::clamp(*number, -most, most);
  } else if (auto* list = value.if_array()) {
    for (auto& element : *list) makeFinite(element);
  } else if (auto* object = value.if_object()) {
    for (auto& member : *object) makeFinite(member.value());
  }
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

std::string_view textView(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  return value && value->is_string() ? std::string_view(value->get_string()) : std::string_view();
}

std::optional<std::int64_t> integer(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  return value ? wholeNumber(*value) : std::nullopt;
}

std::int64_t integer(const Dictionary& from, std::string_view key, std::int64_t fallback) {
  return integer(from, key).value_or(fallback);
}

std::optional<double> number(const Dictionary& from, std::string_view key) {
  const auto* value = find(from, key);
  if (!value || !value->is_number()) return std::nullopt;
  const double found = value->to_number<double>();
  return std::isfinite(found) ? std::optional(found) : std::nullopt;
}

double number(const Dictionary& from, std::string_view key, double fallback) {
  return number(from, key).value_or(fallback);
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

boost::json::storage_ptr storageOfOneUse() {
  return boost::json::make_shared_resource<boost::json::monotonic_resource>();
}

std::optional<Value> parseJson(std::string_view json, boost::json::storage_ptr storage) {
  boost::json::parse_options options;
  options.max_depth = maxJsonDepth;
  boost::system::error_code error;
  auto value = boost::json::parse(json, error, storage, options);
  if (error) {
    const auto whole = withWholeSurrogates(json);
    if (whole) value = boost::json::parse(*whole, error, storage, options);
    if (error) return std::nullopt;
  }
  makeFinite(value);
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
    // Most texts are ASCII for the most part: eight bytes at a time.
    for (std::uint64_t eight = 0; end - bytes >= 8; bytes += 8) {
      std::memcpy(&eight, bytes, 8);
      if (eight & 0x8080808080808080ULL) break;
    }
    if (bytes == end) break;
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
