#pragma once

#include <string_view>

namespace kestrova::inspector {

/// The page, as page.html was when the program was built.
std::string_view page();

}  // namespace kestrova::inspector
