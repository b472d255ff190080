#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kestrova {

/// A failure as the application gets it: a value that may be copied and passed between threads.
/// Codes from 3008 up are raised by the client, those from 4000 and 5000 up come from the service
/// or mirror its answers. Values of one code are equal, whatever message they carry.
///
///     if (error == KestrovaError::INVALID_TOKEN) renewToken();
class KestrovaError {
public:
  /// \param messageOverride replaces the catalogue's message
  KestrovaError(int rawValue, std::string constantName,
                std::optional<std::string> messageOverride = std::nullopt)
      : _rawValue(rawValue),
        _ownName(std::move(constantName)),
        _messageOverride(std::move(messageOverride)) {}

  // Not in line: errors are rare, and every program that passes one on would carry all of it.
  KestrovaError(const KestrovaError& other);
  KestrovaError(KestrovaError&& other) noexcept;
  KestrovaError& operator=(const KestrovaError& other);
  KestrovaError& operator=(KestrovaError&& other) noexcept;
  ~KestrovaError();

  /// The catalogue's value for a code; nothing for a code that it doesn't know.
  static std::optional<KestrovaError> fromRawValue(int rawValue);

  /// This error with another message.
  KestrovaError withMessage(std::string message) const {
    auto copy = *this;
    copy._messageOverride = std::move(message);
    return copy;
  }
  /// This error with why it came about, brought onto one line of at most 300 bytes. What looks like
  /// a token is blotted out, and the query and the user of a URL are left out.
  KestrovaError withCause(std::string cause) const;

  int rawValue() const { return _rawValue; }
  std::string constantName() const {
    return _ownName.empty() ? std::string(_catalogueName) : _ownName;
  }
  std::string name() const { return constantName(); }
  std::string description() const { return constantName(); }
  const std::optional<std::string>& messageOverride() const { return _messageOverride; }
  /// The override, or else the catalogue's text, or else "Server Error: NAME | Code: CODE".
  std::string message() const;
  /// Why, in one line for people, such as "connection refused" or what the service said. Empty
  /// where nothing is known. For logs and screens, not for comparing: the wording may change.
  const std::string& cause() const { return _cause; }

  /// The name of every code of the catalogue.
  static const std::map<int, std::string_view>& knownErrorNames();

  friend bool operator==(const KestrovaError& left, const KestrovaError& right) {
    return left._rawValue == right._rawValue;
  }

  // One constant per row of the catalogue.
#define KESTROVA_ERROR(code, name, text) static const KestrovaError name;
#include <kestrova/model/ErrorCatalogue.inc>
#undef KESTROVA_ERROR

private:
  struct CatalogueName {
    std::string_view text;
  };
  constexpr KestrovaError(int rawValue, CatalogueName name)
      : _rawValue(rawValue), _catalogueName(name.text) {}

  int _rawValue;
  std::string_view _catalogueName{};
  std::string _ownName{};
  std::optional<std::string> _messageOverride{};
  std::string _cause{};
};

/// The error's number.
inline int code(const KestrovaError& error) {
  return error.rawValue();
}
/// One line for people: "4002 INVALID_TOKEN: message (cause)".
std::string text(const KestrovaError& error);

}  // namespace kestrova

template <>
struct std::hash<kestrova::KestrovaError> {
  std::size_t operator()(const kestrova::KestrovaError& error) const noexcept {
    return std::hash<int>()(error.rawValue());
  }
};
