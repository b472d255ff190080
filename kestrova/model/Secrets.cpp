#include <kestrova/model/Secrets.h>

#include <cstddef>

namespace kestrova {
namespace {

/// The three parts of a JSON Web Token, of which the first is JSON and so begins alike.
bool looksLikeToken(std::string_view word) {
  const auto start = word.find("eyJ");
  return start != word.npos && word.find('.', start) != word.npos;
}

}  // namespace

std::string withoutSecrets(std::string_view word) {
  if (looksLikeToken(word)) return "[REDACTED]";
  const auto scheme = word.find("://");
  if (scheme == word.npos) return std::string(word);
  const auto host = scheme + 3;
  word = word.substr(0, word.find_first_of("?#", host));
  const auto user = word.substr(0, word.find('/', host)).rfind('@');
  if (user == word.npos || user < host) return std::string(word);
  return std::string(word.substr(0, host)).append(word.substr(user + 1));
}

std::string addressWithoutSecrets(std::string_view address) {
  if (address.find("://") == address.npos) address = address.substr(0, address.find_first_of("?#"));
  return withoutSecrets(address);
}

bool separatesWords(char c) {
  constexpr std::string_view marks = " \"'<>()[]{},;";
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || marks.find(c) != marks.npos;
}

std::string textWithoutSecrets(std::string_view text) {
  std::string clean;
  while (!text.empty()) {
    std::size_t length = 0;
    while (length < text.size() && !separatesWords(text[length])) ++length;
    clean += withoutSecrets(text.substr(0, length));
    if (length == text.size()) break;
    clean += text[length];
    text.remove_prefix(length + 1);
  }
  return clean;
}

}  // namespace kestrova
