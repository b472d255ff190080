#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// One word as it may be logged: what looks like a token is blotted out, and of a URL the query,
/// the fragment and the user are left out.
std::string withoutSecrets(std::string_view word);

/// The same for an address, which may lack its scheme.
std::string addressWithoutSecrets(std::string_view address);

/// `withoutSecrets` of each word of a text, which stays as it is otherwise.
std::string textWithoutSecrets(std::string_view text);

/// A text without these secrets, plain or as they stand within JSON.
std::string textWithout(std::vector<std::string> secrets, std::string text);

/// Whether `c` stands between words: what surrounds a token or a URL in a sentence or in JSON.
bool separatesWords(char c);

}  // namespace kestrova
