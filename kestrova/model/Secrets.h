#pragma once

#include <string>
#include <string_view>

namespace kestrova {

/// One word as it may be logged: what looks like a token is blotted out, and of a URL the query,
/// the fragment and the user are left out.
std::string withoutSecrets(std::string_view word);

}  // namespace kestrova
