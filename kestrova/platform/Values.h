#pragma once

#include <kestrova/platform/ValuesFwd.h>

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

/// Typed readers. Input from the network is never trusted: a key that is missing or of another type
/// gives the default (or nothing), never an error. Pointers point into `dictionary`.
const Dictionary* dictionary(const Dictionary& dictionary, std::string_view key);
const List* list(const Dictionary& dictionary, std::string_view key);
std::optional<std::string> text(const Dictionary& dictionary, std::string_view key);
std::string text(const Dictionary& dictionary, std::string_view key, std::string_view fallback);
/// The text where it lies in `dictionary`; an empty one when there is none.
std::string_view textView(const Dictionary& dictionary, std::string_view key);
/// Whole numbers only; a number with a fraction or outside the 64-bit range is no integer.
std::optional<std::int64_t> integer(const Dictionary& dictionary, std::string_view key);
std::int64_t integer(const Dictionary& dictionary, std::string_view key, std::int64_t fallback);
/// Any finite number, whole or not.
std::optional<double> number(const Dictionary& dictionary, std::string_view key);
double number(const Dictionary& dictionary, std::string_view key, double fallback);
std::optional<bool> boolean(const Dictionary& dictionary, std::string_view key);
bool boolean(const Dictionary& dictionary, std::string_view key, bool fallback);

/// The value as a dictionary, or an empty one.
const Dictionary& asDictionary(const Value& value);

/// The deepest nesting that `parseJson` reads. Reading, copying, writing and releasing a value take
/// up to 0.45 kB of stack a level, so this is half a megabyte.
constexpr std::size_t maxJsonDepth = 1000;

/// Memory for values that are made, read and dropped together: taken in large pieces, and given
/// back as a whole with the last of them. One thread at a time. A copy by construction lies in it,
/// too: copy what goes to another thread with `{}` as its storage.
boost::json::storage_ptr storageOfOneUse();

/// Parses JSON text; nothing if it is not JSON, not UTF-8, or nested deeper than `maxJsonDepth`.
///
/// What it gives can be sent again: half a surrogate pair, as other systems let pass ("\ud83d"), is
/// read as U+FFFD, and a number beyond the range of a double as the largest one.
std::optional<Value> parseJson(std::string_view json, boost::json::storage_ptr storage = {});
/// The text parsed as a dictionary; an empty one if it is anything else.
Dictionary parseDictionary(std::string_view json);

/// Whether every number is finite and every text is UTF-8, so that the value can travel as JSON.
bool isJsonEncodable(const Value& value);
bool isJsonEncodable(const Dictionary& dictionary);

/// Compact JSON text, or nothing when the value is not encodable.
std::optional<std::string> jsonText(const Value& value);
std::optional<std::string> jsonText(const Dictionary& dictionary);

bool isUtf8(std::string_view text);

}  // namespace kestrova
