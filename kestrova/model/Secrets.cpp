#include <kestrova/model/Secrets.h>

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

}  // namespace kestrova
