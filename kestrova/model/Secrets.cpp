#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Values.h>

#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <cstddef>

namespace kestrova {
namespace {

/// The three parts of a JSON Web Token, of which the first is JSON and so begins alike.
bool looksLikeToken(std::string_view word) {
  const auto start = word.find("eyJ");
  return start != word.npos && word.find('.', start) != word.npos;
}

/// Of what an address begins with: its scheme, if it has one.
std::size_t hostOf(std::string_view address) {
  const auto scheme = address.find("://");
  return scheme == address.npos || address.find_first_of("/?#") < scheme ? 0 : scheme + 3;
}

/// \param host where the part behind the scheme begins
std::string cut(std::string_view address, std::size_t host) {
  address = address.substr(0, address.find_first_of("?#", host));
  const auto user = address.substr(0, address.find('/', host)).rfind('@');
  if (user == address.npos || user < host) return std::string(address);
  return std::string(address.substr(0, host)).append(address.substr(user + 1));
}

}  // namespace

std::string addressWithoutSecrets(std::string_view address) {
  return looksLikeToken(address) ? "[REDACTED]" : cut(address, hostOf(address));
}

std::string withoutSecrets(std::string_view word) {
  if (looksLikeToken(word)) return "[REDACTED]";
  const auto scheme = word.find("://");
  return scheme == word.npos ? std::string(word) : cut(word, scheme + 3);
}

bool separatesWords(char c) {
  constexpr std::string_view marks = " \"'<>()[]{},;";
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || marks.find(c) != marks.npos;
}

std::string textWithout(std::vector<std::string> secrets, std::string text) {
  // One may be a part of another.
  std::sort(secrets.begin(), secrets.end(),
            [](const auto& left, const auto& right) { return left.size() > right.size(); });
  for (const auto& secret : secrets) {
    if (secret.empty()) continue;
    boost::algorithm::replace_all(text, secret, "[REDACTED]");
    const auto quoted = jsonText(Value(secret)).value_or("\"\"");
    const auto inJson = quoted.substr(1, quoted.size() - 2);
    if (inJson != secret && !inJson.empty())
      boost::algorithm::replace_all(text, inJson, "[REDACTED]");
  }
  return text;
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
