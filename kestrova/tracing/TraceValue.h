#pragma once

#include <kestrova/platform/Values.h>

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace kestrova {

/// The attributes as outputs get them.
using TraceAttributes = std::map<std::string, std::string, std::less<>>;

namespace tracing {
template <typename T>
concept Text = std::convertible_to<const T&, std::string_view>;
template <typename T>
concept MakesText = !Text<T> && std::is_invocable_r_v<std::string, const T&>;

/// A callable that makes the text once somebody wants it.
struct LazyText {
  const void* callable;
  std::string (*call)(const void*);

  template <MakesText F>
  static LazyText of(const F& make) {
    return {&make, [](const void* callable) -> std::string {
              return (*static_cast<const F*>(callable))();
            }};
  }
};
}  // namespace tracing

/// The name of an event or span: text, or a callable giving text that runs only when an output
/// takes the event. Refers to its argument: use it within one expression only.
class TraceText {
public:
  template <tracing::Text T>
  TraceText(const T& text) : _text(std::string_view(text)) {}
  template <tracing::MakesText F>
  TraceText(const F& make) : _text(tracing::LazyText::of(make)) {}

  std::string text() const;

private:
  std::variant<std::string_view, tracing::LazyText> _text;
};

/// The value of an attribute: text, a number, a boolean, anything of JSON, or a callable giving
/// text that runs only when an output takes the event. Refers to its argument: use it within one
/// expression only.
class TraceValue {
public:
  template <tracing::Text T>
  TraceValue(const T& text) : _value(std::string_view(text)) {}
  template <tracing::MakesText F>
  TraceValue(const F& make) : _value(tracing::LazyText::of(make)) {}
  TraceValue(std::same_as<bool> auto value) : _value(value) {}
  template <std::integral T>
  requires(!std::same_as<T, bool>) TraceValue(T value) {
    if constexpr (std::is_signed_v<T>)
      _value = static_cast<std::int64_t>(value);
    else
      _value = static_cast<std::uint64_t>(value);
  }
  TraceValue(std::floating_point auto value) : _value(static_cast<double>(value)) {}
  template <typename T>
  requires(std::same_as<T, Value> || std::same_as<T, Dictionary> || std::same_as<T, List>)
      TraceValue(const T& json)
      : _value(&json) {}

  /// The value's plain description: text as it is, numbers in decimal, JSON text for the rest.
  std::string text() const;

private:
  std::variant<std::string_view, std::int64_t, std::uint64_t, double, bool, const Value*,
               const Dictionary*, const List*, tracing::LazyText>
      _value;
};

struct TraceAttribute {
  std::string_view key;
  TraceValue value;
};

/// The attributes as call sites give them: a braced list of key and value, whose values are only
/// turned into text when an output takes the event. Refers to the list: use it within one
/// expression only.
class TraceAttributeList {
public:
  TraceAttributeList() = default;
  TraceAttributeList(std::initializer_list<TraceAttribute> list) {
    _items = std::span(list.begin(), list.size());
  }
  TraceAttributeList(std::span<const TraceAttribute> list) : _items(list) {}

  /// Every value as text; of two with one key the later stays.
  TraceAttributes prepared() const;

private:
  std::span<const TraceAttribute> _items;
};

}  // namespace kestrova
